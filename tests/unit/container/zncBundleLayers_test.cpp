// What a bundle remembers of the layers that it was unpacked from, and what its root is compared
// with.
#include "zncBundleLayers.hpp"
#include "zncBundleRecord.hpp"

#include "fake_platform.hpp"
#include "layout_builder.hpp"
#include "zarnel/overlay.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

class BundleLayers : public ::testing::Test {
  protected:
    void SetUp() override
    {
        fake::reset();
        fs::create_directory(bundle_);
        fs::create_directories(device_); // the fake devices are in memory
    }
    void TearDown() override { fs::remove_all(device_); }

    static znc::TextList list(const Names& names)
    {
        znc::TextList texts;
        for (const std::string& name : names)
            EXPECT_TRUE(texts.add(name.c_str()));
        return texts;
    }
    void unpacked(const std::string& root, const Names& layers)
    {
        znc::BundleRecord record;
        ASSERT_EQ(record.write(base_, bundle_.c_str(), root.c_str(), list(layers), {}), OK);
        record.keep();
    }
    // The first one on top.
    void make_device(const Names& layers) const
    {
        static_cast<void>(znOvlDevRemove(device_.c_str()));
        Names paths;
        std::vector<const char*> dirs;
        for (const std::string& layer : layers)
            paths.push_back(base_ + "/layers/" + layer);
        for (const std::string& path : paths)
            dirs.push_back(path.c_str());
        ASSERT_EQ(znOvlDevCreate(device_.c_str(), dirs.data(),
                                 static_cast<std::uint32_t>(dirs.size()), FALSE),
                  OK);
    }
    void make_tree(const Names& layers) const
    {
        fs::create_directories(tree_);
        bool is_new = false;
        ASSERT_EQ(znc::claim_tree(base_, "chain", list(layers), &is_new), OK);
    }
    // 0, or the number of the refusal.
    [[nodiscard]] int check(const std::string& root) const
    {
        errno = 0;
        return znc::check_bundle_layers(bundle_.c_str(), root.c_str()) == OK ? 0 : errno;
    }

    layout::TempDir dir_;
    std::string base_ = dir_ / "base";
    std::string bundle_ = dir_ / "bundle";
    std::string device_ = "/overlay/chain";
    std::string tree_ = base_ + "/flattened/chain";
    std::string file_ = bundle_ + "/.zn-layers";
};

} // namespace

TEST_F(BundleLayers, ADeviceOfTheSameLayersIsTheBundles)
{
    unpacked(device_, {"bottom", "middle", "top"});
    make_device({"top", "middle", "bottom"});
    EXPECT_EQ(check(device_), 0);
}

TEST_F(BundleLayers, DeviceOfOtherLayersDoesNotMatchTheBundle)
{
    unpacked(device_, {"bottom", "middle", "top"});
    for (const Names& other :
         {Names{"top", "middle", "other"}, Names{"other", "middle", "bottom"},
          Names{"bottom", "middle", "top"}, Names{"top", "middle"}, Names{"middle", "bottom"},
          Names{"top", "middle", "bottom", "bottom"}, Names{"top"}}) {
        make_device(other);
        EXPECT_EQ(check(device_), ESTALE) << other.front() << other.size();
    }
}

TEST_F(BundleLayers, UnmountedDeviceFailsWithENOENT)
{
    unpacked(device_, {"bottom", "top"});
    EXPECT_EQ(check(device_), ENOENT);
}

TEST_F(BundleLayers, AFlattenedTreeIsComparedByItsRecord)
{
    unpacked(tree_, {"bottom", "top"});
    make_tree({"bottom", "top"});
    EXPECT_EQ(check(tree_), 0);
    for (const Names& other : {Names{"top", "bottom"}, Names{"bottom"}, Names{"bottom", "other"},
                               Names{"bottom", "top", "more"}}) {
        fs::remove_all(base_ + "/records");
        make_tree(other);
        EXPECT_EQ(check(tree_), ESTALE) << other.size();
    }
    fs::remove_all(base_ + "/records");
    EXPECT_EQ(check(tree_), ENOENT) << "nobody knows what it is made of";
}

TEST_F(BundleLayers, LayerNeedsNoComparisonBecauseItIsNamedByItsDigest)
{
    const std::string layer = base_ + "/layers/only";
    unpacked(layer, {"only"});
    fs::create_directories(layer);
    EXPECT_EQ(check(layer), 0);
}

TEST_F(BundleLayers, ABundleWithoutARecordIsNotCompared)
{
    make_device({"top", "bottom"});
    EXPECT_EQ(check(device_), 0);
}

TEST_F(BundleLayers, ARecordAboutAnotherRootIsNotCompared)
{
    unpacked(device_, {"bottom", "top"});
    make_tree({"other"});
    EXPECT_EQ(check(tree_), 0) << "somebody has changed the configuration";
}

TEST_F(BundleLayers, AMissingRootIsNotCompared)
{
    unpacked(device_, {"bottom", "top"});
    fs::remove(device_);
    EXPECT_EQ(check(device_), 0);
}

TEST_F(BundleLayers, ARecordThatCannotBeReadIsARefusal)
{
    make_device({"top", "bottom"});
    for (const std::string& text :
         {std::string(), std::string("/overlay/chain"), std::string("/overlay/chain\0top\0", 19)}) {
        layout::write_file(file_, text);
        EXPECT_EQ(check(device_), EBADMSG) << text.size();
    }
    fs::remove(file_);
    ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0); // nobody writes to it: it is not waited for
    EXPECT_EQ(check(device_), EINVAL);
}

TEST_F(BundleLayers, TheRecordIsItsWritersAlone)
{
    unpacked(device_, {"bottom", "top"});
    struct stat st = {};
    ASSERT_EQ(::stat(file_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode, mode_t{S_IFREG | 0600});
}

TEST_F(BundleLayers, RecordInTheBundleIsRemovedUnlessKept)
{
    {
        znc::BundleRecord record;
        ASSERT_EQ(record.write(base_, bundle_.c_str(), device_.c_str(), list({"a", "b"}), {}), OK);
        EXPECT_TRUE(fs::exists(file_));
    }
    EXPECT_FALSE(fs::exists(file_));
    EXPECT_TRUE(fs::is_empty(base_ + "/records"));
}
