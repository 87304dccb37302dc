// Tests of what a collection removes from a storage base, and what it keeps.
#include "zncImageLib.hpp"
#include "zncStoreLock.hpp"
#include "zncStoreTree.hpp"

#include "eventually.hpp"
#include "fake_platform.hpp"
#include "layout_builder.hpp"
#include "readdir_fault.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;
using layout::Image;
using layout::tar;

std::set<std::string> names_in(const fs::path& dir)
{
    std::set<std::string> names;
    if (fs::exists(dir))
        for (const fs::directory_entry& entry : fs::directory_iterator(dir))
            names.insert(entry.path().filename());
    return names;
}

using Removed = std::multiset<std::pair<ZNC_STORE_KIND, std::string>>;

class StoreCollect : public ::testing::Test {
  protected:
    void SetUp() override
    {
        fake::reset();
        fs::create_directory("/overlay");
        ASSERT_EQ(::setenv("ZNC_BASE", base_.c_str(), 1), 0);
        Image image;
        image.layers = {bottom_, top_};
        layout_.add(image);
        image.layers = {single_};
        image.name = "single";
        layout_.add(image);
    }
    void TearDown() override { ::unsetenv("ZNC_BASE"); }

    std::string unpacked(const std::string& name, unsigned option = 0, const char* tag = nullptr)
    {
        const std::string bundle = dir_ / name;
        EXPECT_EQ(zncImageUnpack(bundle.c_str(), layout_.c_str(), tag, option, nullptr), OK)
            << errno;
        return bundle;
    }
    STATUS collect(const std::vector<std::string>& used = {}, unsigned option = 0)
    {
        removed_.clear();
        std::vector<const char*> paths;
        for (const std::string& path : used)
            paths.push_back(path.c_str());
        errno = 0;
        return zncStoreCollect(
            paths.data(), static_cast<std::uint32_t>(paths.size()), option,
            [](ZNC_STORE_KIND kind, const char* path, void* to) {
                static_cast<Removed*>(to)->insert({kind, path});
            },
            &removed_);
    }
    static std::string root_of(const std::string& bundle)
    {
        const znc::CJsonPtr config(cJSON_Parse(layout::read_file(bundle + "/config.json").c_str()));
        const cJSON* root = cJSON_GetObjectItem(config.get(), "root");
        return cJSON_GetStringValue(cJSON_GetObjectItem(root, "path"));
    }
    [[nodiscard]] std::string layer(const std::string& archive) const
    {
        return base_ + "/layers/" + layout::sha256_hex(archive);
    }

    layout::TempDir dir_;
    layout::Layout layout_{dir_.path() / "img"};
    std::string base_ = dir_ / "base";
    const std::string bottom_ = tar({layout::directory("d/"), {"d/low", "low"}});
    const std::string top_ = tar({{"high", "high"}});
    const std::string single_ = tar({{"only", "one"}});
    Removed removed_;
};

TEST_F(StoreCollect, ABundleKeepsWhatItNeedsWithoutBeingNamed)
{
    const std::string layered = unpacked("layered");
    unpacked("flat", ZNC_OPT_FLATTEN);
    unpacked("single", 0, "single");
    EXPECT_EQ(collect(), OK);
    EXPECT_EQ(removed_, Removed());
    EXPECT_EQ(names_in(base_ + "/layers").size(), 3U);
    EXPECT_EQ(names_in(base_ + "/flattened").size(), 1U);
    EXPECT_TRUE(fake::devices().contains(root_of(layered)));
}

TEST_F(StoreCollect, WhatADeletedBundleNeededIsRemoved)
{
    const std::string layered = unpacked("layered");
    const std::string flat = unpacked("flat", ZNC_OPT_FLATTEN);
    unpacked("single", 0, "single");
    const std::string device = root_of(layered);
    const std::string tree = root_of(flat);
    fs::create_directory("/overlay/" + fs::path(device).filename().string()); // for the dry run
    fs::remove_all(layered);
    fs::remove_all(flat);
    const Removed expected = {{ZNC_STORE_DEVICE, device},
                              {ZNC_STORE_TREE, tree},
                              {ZNC_STORE_LAYER, layer(bottom_)},
                              {ZNC_STORE_LAYER, layer(top_)}};
    EXPECT_EQ(collect({}, ZNC_OPT_DRY_RUN), OK);
    EXPECT_EQ(removed_, expected);
    EXPECT_EQ(names_in(base_ + "/layers").size(), 3U);
    EXPECT_TRUE(fake::devices().contains(device));
    EXPECT_EQ(collect(), OK);
    EXPECT_EQ(removed_, expected);
    EXPECT_EQ(names_in(base_ + "/layers"), std::set<std::string>{layout::sha256_hex(single_)});
    EXPECT_TRUE(names_in(base_ + "/flattened").empty());
    EXPECT_EQ(names_in(base_ + "/records").size(), 1U);
    EXPECT_TRUE(fake::devices().empty());
    EXPECT_FALSE(fs::exists(base_ + "/.lock"));
}

TEST_F(StoreCollect, WhatTheCallerNamesIsKept)
{
    const std::string layered = unpacked("layered");
    const std::string single = unpacked("single", 0, "single");
    const std::string moved = dir_ / "moved";
    fs::rename(layered, moved);
    fs::remove_all(single);
    EXPECT_EQ(collect({moved, layer(single_)}), OK);
    EXPECT_EQ(removed_, Removed());
    EXPECT_EQ(collect({moved}), OK);
    EXPECT_EQ(removed_, (Removed{{ZNC_STORE_LAYER, layer(single_)}}));
    EXPECT_EQ(collect({root_of(moved)}), OK);
    EXPECT_EQ(removed_, Removed());
    EXPECT_EQ(names_in(base_ + "/layers").size(), 2U);
}

TEST_F(StoreCollect, BundlesInTheBaseStayOnlyWhileTheCallerNamesThem)
{
    fs::create_directories(base_ + "/bundles");
    const std::string bundle = base_ + "/bundles/image";
    EXPECT_EQ(zncImageUnpack(bundle.c_str(), layout_.c_str(), "single", 0, nullptr), OK);
    EXPECT_EQ(collect({bundle}), OK);
    EXPECT_EQ(removed_, Removed());
    EXPECT_EQ(collect(), OK);
    EXPECT_EQ(removed_, (Removed{{ZNC_STORE_BUNDLE, bundle}, {ZNC_STORE_LAYER, layer(single_)}}));
    EXPECT_TRUE(names_in(base_ + "/bundles").empty());
}

TEST_F(StoreCollect, ATreeThatWasSetAsideStaysWhileAContainerHasTheTree)
{
    const std::string flat = unpacked("flat", ZNC_OPT_FLATTEN);
    const std::string tree = root_of(flat);
    layout::write_file(tree + "/high", "changed");
    unpacked("flat2", ZNC_OPT_FLATTEN);
    ASSERT_EQ(names_in(base_ + "/flattened").size(), 2U);
    EXPECT_EQ(collect({flat}), OK);
    EXPECT_EQ(names_in(base_ + "/flattened").size(), 2U);
    EXPECT_EQ(collect(), OK);
    EXPECT_EQ(removed_.size(), 1U);
    EXPECT_EQ(names_in(base_ + "/flattened"),
              std::set<std::string>{fs::path(tree).filename().string()});
}

TEST_F(StoreCollect, FilesWithOtherNamesStayAndLinksAreNotFollowed)
{
    const std::string bundle = unpacked("single", 0, "single");
    fs::remove_all(bundle);
    const layout::TempDir outside;
    layout::write_file(outside / "precious", "kept");
    const std::string hex(64, 'a');
    fs::create_directory(base_ + "/layers/mine");
    layout::write_file(base_ + "/layers/" + std::string(64, 'b'), "a file");
    fs::create_directory_symlink(outside.path(), base_ + "/layers/" + hex);
    fs::create_directory_symlink(outside.path(), layer(single_) + "/link");
    fs::create_directories(base_ + "/flattened/.old-mine");
    EXPECT_EQ(collect(), OK);
    EXPECT_EQ(removed_, (Removed{{ZNC_STORE_LAYER, layer(single_)}}));
    EXPECT_EQ(names_in(base_ + "/layers"),
              (std::set<std::string>{"mine", hex, std::string(64, 'b')}));
    EXPECT_TRUE(fs::exists(base_ + "/flattened/.old-mine"));
    EXPECT_EQ(layout::read_file(outside / "precious"), "kept");
}

TEST_F(StoreCollect, WhileAnImageIsUnpackedItIsRefused)
{
    unpacked("single", 0, "single");
    fs::remove_all(dir_ / "single");
    znc::StoreLock lock;
    ASSERT_EQ(lock.take(base_), OK);
    EXPECT_EQ(collect(), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(removed_, Removed());
    lock.release();
    EXPECT_EQ(collect(), OK);
    EXPECT_EQ(removed_.size(), 1U);
}

TEST_F(StoreCollect, ARecordThatCannotBeReadStopsIt)
{
    unpacked("single", 0, "single");
    fs::remove_all(dir_ / "single");
    layout::write_file(base_ + "/records/broken.bundle", "no end");
    EXPECT_EQ(collect(), ERROR);
    EXPECT_EQ(errno, EBADMSG);
    EXPECT_EQ(names_in(base_ + "/layers").size(), 1U);
}

TEST_F(StoreCollect, ADirectoryThatCannotBeReadIsReportedAndCostsNoBundleItsLayers)
{
    const std::string layered = unpacked("layered");
    unpacked("flat", ZNC_OPT_FLATTEN);
    fs::remove_all(unpacked("single", 0, "single"));
    int failed = 0;
    for (bool reached = true; reached; failed++) {
        readdir_fault_in = failed + 1;
        const STATUS status = collect();
        reached = std::exchange(readdir_fault_in, 0) == 0;
        EXPECT_EQ(status, reached ? ERROR : OK) << failed;
        EXPECT_EQ(names_in(base_ + "/flattened").size(), 1U);
        EXPECT_TRUE(fs::exists(layer(bottom_)) && fs::exists(layer(top_)));
        EXPECT_TRUE(fake::devices().contains(root_of(layered)));
    }
    EXPECT_GT(failed, 10);
    EXPECT_FALSE(fs::exists(layer(single_)));
}

TEST_F(StoreCollect, ADeviceThatCannotBeRemovedKeepsItsLayersAndIsTriedAgain)
{
    fs::remove_all(unpacked("layered"));
    fake::fail("znOvlDevRemove", 1, EBUSY);
    EXPECT_EQ(collect(), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(names_in(base_ + "/layers").size(), 2U);
    EXPECT_EQ(collect(), OK);
    EXPECT_EQ(removed_.size(), 3U);
}

TEST_F(StoreCollect, WithoutAStoreItSucceedsAndCreatesNothing)
{
    EXPECT_EQ(collect(), OK);
    EXPECT_EQ(removed_, Removed());
    EXPECT_FALSE(fs::exists(base_));
    EXPECT_EQ(zncStoreCollect(nullptr, 1, 0, nullptr, nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

// A process that is stopped while it removes leftovers does not block others.
TEST_F(StoreCollect, LeftoversAreDeletedUnderTheSharedLock)
{
    fs::create_directories(base_ + "/layers/.unpack-abcdef");
    const pid_t slow = ::fork();
    if (slow == 0) {
        znc::StoreLock lock;
        const bool taken = lock.take(base_) == OK;
        ::raise(SIGSTOP);
        ::_exit(taken ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(slow, &status, WUNTRACED), slow);
    ASSERT_TRUE(WIFSTOPPED(status));
    znc::StoreLock lock;
    EXPECT_EQ(lock.take(base_), OK);
    EXPECT_FALSE(fs::exists(base_ + "/layers/.unpack-abcdef"));
    lock.release();
    ::kill(slow, SIGCONT);
    ASSERT_EQ(::waitpid(slow, &status, 0), slow);
    EXPECT_EQ(status, 0);
}

TEST_F(StoreCollect, WaitingForAnExclusiveLockHasATimeLimit)
{
    fs::create_directories(base_);
    znc::StoreLock alone;
    ASSERT_EQ(alone.take_alone(base_), OK);
    znc::StoreLock other;
    EXPECT_EQ(other.take(base_), ERROR);
    EXPECT_EQ(errno, EBUSY);
}

} // namespace
