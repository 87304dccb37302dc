// Tests of bundles created from images: the three kinds of root filesystem, the layer store,
// failures.
#include "zncImageLib.hpp"

#include "alloc_fault.hpp"
#include "eventually.hpp"
#include "fake_platform.hpp"
#include "layout_builder.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

extern "C" {
int __real_openat(int dir, const char* name, int flags, ...);
int __wrap_openat(int dir, const char* name, int flags, ...);
}

namespace {

std::function<void(const std::string& name)> before_openat;

namespace fs = std::filesystem;
using layout::Image;
using layout::Member;
using layout::tar;
using znc::CJsonPtr;

std::set<std::string> names_in(const fs::path& dir)
{
    std::set<std::string> names;
    if (fs::exists(dir))
        for (const fs::directory_entry& entry : fs::directory_iterator(dir))
            names.insert(entry.path().filename());
    return names;
}

std::string hex_of(const std::string& layer)
{
    return layout::sha256_hex(layer);
}

std::string chain_of(const std::vector<std::string>& layers)
{
    std::string chain;
    for (const std::string& layer : layers)
        chain = hex_of(layout::raw_bytes(chain) + hex_of(layer));
    return chain;
}

class Unpack : public ::testing::Test {
  protected:
    void SetUp() override
    {
        fake::reset();
        fs::create_directory("/overlay");
        ASSERT_EQ(::setenv("ZNC_BASE", base_.c_str(), 1), 0);
    }
    void TearDown() override { ::unsetenv("ZNC_BASE"); }

    static void without_overlay() { fs::remove("/overlay"); }

    STATUS unpack(const std::string& bundle, unsigned option = 0,
                  const ZNC_BUNDLE_ATTR* attr = nullptr, const char* tag = nullptr)
    {
        errno = 0;
        return zncImageUnpack(bundle.c_str(), layout_.c_str(), tag, option, attr);
    }
    void add(const std::vector<std::string>& layers, const std::string& name = "latest")
    {
        Image image;
        image.layers = layers;
        image.name = name;
        layout_.add(image);
    }
    static std::string root_of(const std::string& bundle)
    {
        const CJsonPtr config(cJSON_Parse(layout::read_file(bundle + "/config.json").c_str()));
        const cJSON* root = cJSON_GetObjectItem(config.get(), "root");
        const char* path = cJSON_GetStringValue(cJSON_GetObjectItem(root, "path"));
        return path != nullptr ? path : "(none)";
    }

    layout::TempDir dir_;
    layout::Layout layout_{dir_.path() / "img"};
    std::string base_ = dir_ / "base";
    std::string store_ = base_ + "/layers";
    std::string flattened_ = base_ + "/flattened";
    std::string bundle_ = dir_ / "bundle";
    const std::string bottom_ = tar({layout::directory("d/"), {"d/low", "low"}, {"both", "low"}});
    const std::string top_ = tar({{"both", "top"}, {"high", "high"}});
};

// ------------------------------------------------------------------ the kind

TEST_F(Unpack, TheKindFollowsBitZeroAndTheOverlay)
{
    for (const unsigned option : {0U, 2U, 0xfffffffeU})
        EXPECT_EQ(zncImageRootfsTypeVerify(option), LAYERED_ROOTFS);
    for (const unsigned option : {1U, 3U})
        EXPECT_EQ(zncImageRootfsTypeVerify(option), FLATTENDED_ROOTFS);
    without_overlay();
    EXPECT_EQ(zncImageRootfsTypeVerify(0), RAW_ROOTFS);
    EXPECT_EQ(zncImageRootfsTypeVerify(2), RAW_ROOTFS);
    EXPECT_EQ(zncImageRootfsTypeVerify(1), -1);
}

TEST_F(Unpack, DefaultsAreZarnelAmd64AndLatest)
{
    EXPECT_STREQ(zncDefaultOs(), "zarnel");
    EXPECT_STREQ(zncDefaultArchitecture(), "amd64");
    EXPECT_STREQ(zncDefaultTag(), "latest");
    add({top_});
    EXPECT_EQ(unpack(bundle_), OK);
}

TEST_F(Unpack, AttributesAndTagChooseTheImage)
{
    Image image;
    image.os = "linux";
    image.arch = "arm64";
    image.name = "v1";
    layout_.add(image);
    const ZNC_BUNDLE_ATTR both = {"linux", "arm64"};
    const ZNC_BUNDLE_ATTR only_os = {"linux", nullptr};
    EXPECT_EQ(unpack(bundle_, 0, &only_os, "v1"), ERROR);
    EXPECT_EQ(errno, S_zncLib_INDEX_INVALID);
    EXPECT_EQ(unpack(bundle_, 0, &both), ERROR);
    EXPECT_FALSE(fs::exists(bundle_));
    EXPECT_EQ(unpack(bundle_, 0, &both, "v1"), OK);
}

// ------------------------------------------------------------------ raw

TEST_F(Unpack, WithoutOverlayOptionZeroMakesARawRoot)
{
    without_overlay();
    add({bottom_, top_});
    ASSERT_EQ(unpack(bundle_), OK) << errno;
    EXPECT_EQ(root_of(bundle_), "rootfs");
    EXPECT_EQ(names_in(bundle_ + "/rootfs"), (std::set<std::string>{"d", "both", "high"}));
    // the upper layer replaces the file
    EXPECT_EQ(layout::read_file(bundle_ + "/rootfs/both"), "top");
    EXPECT_EQ(layout::read_file(bundle_ + "/rootfs/d/low"), "low");
    EXPECT_FALSE(fs::exists(base_));
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Unpack, WithoutOverlayFlatteningIsEINVALAndMakesNothing)
{
    without_overlay();
    add({bottom_});
    EXPECT_EQ(unpack(bundle_, ZNC_OPT_FLATTEN), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(fs::exists(bundle_));
}

TEST_F(Unpack, GzipLayersAreRecognisedWhateverTheirMediaTypeSays)
{
    without_overlay();
    Image image;
    image.layers = {layout::gzip(bottom_)};
    layout_.add(image);
    ASSERT_EQ(unpack(bundle_), OK);
    EXPECT_EQ(layout::read_file(bundle_ + "/rootfs/d/low"), "low");
}

// ------------------------------------------------------------------ layered

TEST_F(Unpack, AOneLayerImageUsesTheStoreDirectoryWithBothOptions)
{
    add({bottom_});
    for (const unsigned option : {0U, 1U}) {
        const std::string bundle = bundle_ + std::to_string(option);
        ASSERT_EQ(unpack(bundle, option), OK) << errno;
        EXPECT_EQ(root_of(bundle), store_ + "/" + hex_of(bottom_));
        EXPECT_TRUE(names_in(bundle + "/rootfs").empty());
    }
    EXPECT_EQ(layout::read_file(store_ + "/" + hex_of(bottom_) + "/d/low"), "low");
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_FALSE(fs::exists(flattened_));
}

TEST_F(Unpack, MoreLayersAreAnOverlayDeviceWithTheTopLayerFirst)
{
    add({bottom_, top_});
    ASSERT_EQ(unpack(bundle_), OK) << errno;
    const std::string device = "/overlay/" + chain_of({bottom_, top_});
    EXPECT_EQ(root_of(bundle_), device);
    const std::vector<fake::Call> calls = fake::calls_of("znOvlDevCreate");
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].name, device);
    EXPECT_EQ(calls[0].number, FALSE);
    EXPECT_EQ(calls[0].list, (std::vector<std::string>{store_ + "/" + hex_of(top_),
                                                       store_ + "/" + hex_of(bottom_)}));
    EXPECT_EQ(names_in(store_), (std::set<std::string>{hex_of(top_), hex_of(bottom_)}));
    EXPECT_TRUE(names_in(bundle_ + "/rootfs").empty());
}

TEST_F(Unpack, OnlyBitZeroOfTheOptionCounts)
{
    add({bottom_, top_});
    ASSERT_EQ(unpack(bundle_, 2), OK);
    EXPECT_EQ(root_of(bundle_), "/overlay/" + chain_of({bottom_, top_}));
}

TEST_F(Unpack, ALayerDirectoryHasMode0700)
{
    add({bottom_});
    ASSERT_EQ(unpack(bundle_), OK);
    struct stat st = {};
    ASSERT_EQ(::stat((store_ + "/" + hex_of(bottom_)).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777U, 0700U);
}

TEST_F(Unpack, TwoImagesWithACommonLayerExtractItOnce)
{
    add({bottom_, top_}, "one");
    add({bottom_, tar({{"other", "x"}})}, "two");
    ASSERT_EQ(unpack(bundle_ + "1", 0, nullptr, "one"), OK);
    const std::string common = store_ + "/" + hex_of(bottom_);
    layout::write_file(common + "/mark", "first extraction");
    ASSERT_EQ(unpack(bundle_ + "2", 0, nullptr, "two"), OK);
    EXPECT_EQ(layout::read_file(common + "/mark"), "first extraction");
    EXPECT_EQ(names_in(store_).size(), 3U);
}

TEST_F(Unpack, ExistingLayerDirectoryIsReusedWithoutReading)
{
    add({bottom_});
    fs::create_directories(store_ + "/" + hex_of(bottom_));
    ASSERT_EQ(unpack(bundle_), OK);
    EXPECT_TRUE(names_in(store_ + "/" + hex_of(bottom_)).empty());
}

TEST_F(Unpack, AnOverlayFailureRemovesTheBundleAndKeepsTheLayers)
{
    add({bottom_, top_});
    fake::fail("znOvlDevCreate", 1, EEXIST);
    EXPECT_EQ(unpack(bundle_), ERROR);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_FALSE(fs::exists(bundle_));
    EXPECT_EQ(names_in(store_), (std::set<std::string>{hex_of(top_), hex_of(bottom_)}));
}

TEST_F(Unpack, ALayerThatCannotBeExtractedLeavesNothingInTheStore)
{
    std::string damaged = tar(
        {layout::directory("d/"), layout::symlink("d/out", "/tmp"), {"fine", "x"}, {"bad", "y"}});
    damaged[512 * 4] ^= 1; // in the header of "bad"
    add({bottom_, damaged});
    EXPECT_EQ(unpack(bundle_), ERROR);
    EXPECT_FALSE(fs::exists(bundle_));
    EXPECT_TRUE(names_in(store_).empty());
}

// On top of `bottom_` the damaged layer finds an existing directory.
TEST_F(Unpack, ADamagedLayerLeavesNoNumberOfAnEarlierCall)
{
    std::string damaged = tar({layout::directory("d/"), {"both", "x"}, {"bad", "y"}});
    damaged[512 * 3] ^= 1; // in the header of "bad"
    add({bottom_, damaged}, "two");
    add({damaged}, "one");
    const auto expect_none = [&](const char* tag, unsigned option) {
        fs::remove_all(bundle_);
        fs::create_directory(bundle_); // so that mkdir fails with EEXIST
        EXPECT_EQ(unpack(bundle_, option, nullptr, tag), ERROR);
        EXPECT_EQ(errno, 0) << tag << " " << option;
    };
    for (const char* tag : {"one", "two"})
        for (const unsigned option : {0U, ZNC_OPT_FLATTEN})
            expect_none(tag, option);
    without_overlay();
    for (const char* tag : {"one", "two"})
        expect_none(tag, 0);
}

TEST_F(Unpack, ATruncatedLayerLeavesNoNumberOfAFileThatCouldNotBeMade)
{
    without_overlay();
    // in the layer below "d" is a directory
    std::string damaged = tar({{"d", std::string(5000, 'x')}});
    damaged.resize(1024);
    add({bottom_, damaged});
    EXPECT_EQ(unpack(bundle_), ERROR);
    EXPECT_EQ(errno, 0);
}

TEST_F(Unpack, LayersExtractedBeforeAFailureStayInTheStore)
{
    std::string damaged = bottom_;
    damaged[0] ^= 1;
    add({damaged, top_}); // the top layer is extracted first
    EXPECT_EQ(unpack(bundle_), ERROR);
    EXPECT_EQ(names_in(store_), (std::set<std::string>{hex_of(top_)}));
}

// ------------------------------------------------------------------ flattened

TEST_F(Unpack, MoreLayersFlattenIntoOneDirectory)
{
    add({bottom_, top_});
    ASSERT_EQ(unpack(bundle_, ZNC_OPT_FLATTEN), OK) << errno;
    const std::string root = flattened_ + "/" + chain_of({bottom_, top_});
    EXPECT_EQ(root_of(bundle_), root);
    EXPECT_EQ(layout::read_file(root + "/both"), "top");
    EXPECT_EQ(layout::read_file(root + "/d/low"), "low");
    struct stat st = {};
    ASSERT_EQ(::stat(root.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777U, 0700U);
    EXPECT_FALSE(fs::exists(store_));
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Unpack, AFlattenedTreeIsExtractedAgainAlsoWhenItHoldsLinks)
{
    const layout::TempDir outside;
    layout::write_file(outside / "precious", "kept");
    add({tar({layout::directory("d/"), layout::symlink("d/out", outside.path()),
              layout::symlink("link", "d")}),
         top_});
    ASSERT_EQ(unpack(bundle_ + "1", ZNC_OPT_FLATTEN), OK);
    const std::string root =
        flattened_ + "/" +
        chain_of({tar({layout::directory("d/"), layout::symlink("d/out", outside.path()),
                       layout::symlink("link", "d")}),
                  top_});
    layout::write_file(root + "/high", "changed");
    fs::remove(root + "/both");
    ASSERT_EQ(unpack(bundle_ + "2", ZNC_OPT_FLATTEN), OK) << errno;
    EXPECT_EQ(layout::read_file(root + "/high"), "high");
    EXPECT_EQ(layout::read_file(root + "/both"), "top");
    EXPECT_EQ(fs::read_symlink(root + "/link"), "d");
    EXPECT_EQ(layout::read_file(outside / "precious"), "kept");
}

// Overlay mounts that use the tree as a lower directory keep it.
TEST_F(Unpack, AnUnmodifiedFlattenedTreeStaysWhenItsImageIsFlattenedAgain)
{
    add({bottom_, top_});
    ASSERT_EQ(unpack(bundle_, ZNC_OPT_FLATTEN), OK);
    const std::string root = root_of(bundle_);
    struct stat before = {};
    struct stat after = {};
    ASSERT_EQ(::stat(root.c_str(), &before), 0);
    ASSERT_EQ(unpack(bundle_ + "2", ZNC_OPT_FLATTEN), OK) << errno;
    ASSERT_EQ(::stat(root.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(names_in(flattened_), (std::set<std::string>{chain_of({bottom_, top_})}));
}

TEST_F(Unpack, AFlattenedTreeThatWasChangedIsExchangedAndSetAsideAsItWas)
{
    add({bottom_, top_});
    ASSERT_EQ(unpack(bundle_, ZNC_OPT_FLATTEN), OK);
    const std::string root = root_of(bundle_);
    const znc::UniqueFd user(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    layout::write_file(root + "/high", "changed");
    ASSERT_EQ(::symlink("/", (root + "/link").c_str()), 0);
    ASSERT_EQ(unpack(bundle_ + "2", ZNC_OPT_FLATTEN), OK) << errno;
    EXPECT_EQ(names_in(root), (std::set<std::string>{"d", "both", "high"}));
    EXPECT_EQ(layout::read_file(root + "/high"), "high");
    const std::string aside = "/proc/self/fd/" + std::to_string(user.get());
    EXPECT_EQ(names_in(aside + "/"), (std::set<std::string>{"d", "both", "high", "link"}));
    EXPECT_EQ(layout::read_file(aside + "/high"), "changed");
    EXPECT_EQ(names_in(flattened_).size(), 2U);
}

TEST_F(Unpack, AFailedFlattenLeavesTheExistingTreeUnchanged)
{
    const std::string below = tar({layout::symlink("link", "d"), {"file", "low"}});
    add({below, top_});
    ASSERT_EQ(unpack(bundle_, ZNC_OPT_FLATTEN), OK);
    const std::string root = root_of(bundle_);
    fs::remove(layout_.blob("sha256:" + hex_of(top_)));
    before_openat = [&](const std::string& name) {
        if (name == "file") // during the second read, after everything was verified
            layout::write_file(layout_.blob("sha256:" + hex_of(top_)), "no archive");
    };
    layout::write_file(layout_.blob("sha256:" + hex_of(top_)), top_);
    EXPECT_EQ(unpack(bundle_ + "2", ZNC_OPT_FLATTEN), ERROR);
    before_openat = nullptr;
    EXPECT_EQ(errno, S_zncLib_MANIFEST_INVALID);
    EXPECT_EQ(fs::read_symlink(root + "/link"), "d");
    EXPECT_EQ(names_in(root), (std::set<std::string>{"link", "file", "both", "high"}));
    EXPECT_EQ(names_in(flattened_).size(), 1U);
}

TEST_F(Unpack, AnImageWithTheSameDiffIdsAndOtherLayersIsRefusedAndChangesNothing)
{
    add({bottom_, top_}, "one");
    Image other;
    other.name = "two";
    other.layers = {bottom_, layout::gzip(tar({{"high", "another's"}}))};
    other.diff_ids = {"sha256:" + hex_of(bottom_), "sha256:" + hex_of(top_)};
    layout_.add(other);
    ASSERT_EQ(unpack(bundle_, ZNC_OPT_FLATTEN, nullptr, "one"), OK) << errno;
    const std::string root = root_of(bundle_);
    EXPECT_EQ(unpack(bundle_ + "2", ZNC_OPT_FLATTEN, nullptr, "two"), ERROR);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_FALSE(fs::exists(bundle_ + "2"));
    EXPECT_EQ(layout::read_file(root + "/high"), "high");
    EXPECT_EQ(names_in(flattened_).size(), 1U);
}

TEST_F(Unpack, TreeWithoutARecordIsReusedOnlyIfEqual)
{
    add({bottom_, top_});
    ASSERT_EQ(unpack(bundle_, ZNC_OPT_FLATTEN), OK);
    const std::string root = root_of(bundle_);
    fs::remove_all(base_ + "/records");
    EXPECT_EQ(unpack(bundle_ + "2", ZNC_OPT_FLATTEN), OK) << errno;
    fs::remove_all(base_ + "/records");
    layout::write_file(root + "/high", "changed");
    EXPECT_EQ(unpack(bundle_ + "3", ZNC_OPT_FLATTEN), ERROR);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(layout::read_file(root + "/high"), "changed");
}

// The device of the first unpack may no longer exist, for example after a reboot.
TEST_F(Unpack, AStackOfOtherLayersUnderTheNameThatABundleUsesIsRefused)
{
    add({bottom_, top_}, "one");
    Image other;
    other.name = "two";
    other.layers = {bottom_, layout::gzip(tar({{"high", "another's"}}))};
    other.diff_ids = {"sha256:" + hex_of(bottom_), "sha256:" + hex_of(top_)};
    layout_.add(other);
    ASSERT_EQ(unpack(bundle_, 0, nullptr, "one"), OK) << errno;
    const std::string device = root_of(bundle_);
    ASSERT_EQ(zncRemoveOvlRootfsDev(device.c_str()), OK);
    EXPECT_EQ(unpack(bundle_ + "2", 0, nullptr, "two"), ERROR);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_FALSE(fake::devices().contains(device));
    ASSERT_EQ(unpack(bundle_ + "3", 0, nullptr, "one"), OK) << errno;
    ASSERT_EQ(zncRemoveOvlRootfsDev(device.c_str()), OK);
    fs::remove_all(bundle_);
    fs::remove_all(bundle_ + "3");
    EXPECT_EQ(unpack(bundle_ + "4", 0, nullptr, "two"), OK) << errno;
}

TEST_F(Unpack, MoreLayersThanTheKernelStacksAreRefusedBeforeAnyIsExtracted)
{
    std::vector<std::string> layers;
    for (int i = 0; i <= 500; i++)
        layers.push_back(tar({{"f" + std::to_string(i), "x"}}));
    add(layers, "tall");
    EXPECT_EQ(unpack(bundle_, 0, nullptr, "tall"), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(names_in(store_).empty());
    EXPECT_TRUE(names_in(base_ + "/records").empty());
    EXPECT_FALSE(fs::exists(bundle_));
    ASSERT_EQ(unpack(bundle_, ZNC_OPT_FLATTEN, nullptr, "tall"), OK) << errno;
    EXPECT_EQ(names_in(root_of(bundle_)).size(), layers.size());
}

TEST_F(Unpack, DuplicateLayersCountOnceForTheKernelsLimit)
{
    std::vector<std::string> layers(600, bottom_);
    layers.push_back(top_);
    add(layers);
    EXPECT_EQ(unpack(bundle_), OK) << errno;
    EXPECT_EQ(names_in(store_).size(), 2U);
}

// A collection between the extraction and the last step would take the layers for unneeded.
TEST_F(Unpack, NoCollectionBeginsUntilTheBundleRefersToItsLayers)
{
    add({bottom_, top_});
    for (const unsigned option : {0U, unsigned{ZNC_OPT_FLATTEN}}) {
        std::map<std::string, int>
            errors; // of a collection, by the name that was about to be opened
        const auto try_collecting = [&](const std::string& name) {
            const auto hook = std::exchange(before_openat, nullptr);
            const STATUS collected = zncStoreCollect(nullptr, 0, 0, nullptr, nullptr);
            errors[name] = collected == OK ? 0 : errno;
            before_openat = hook;
        };
        before_openat = [&](const std::string& name) {
            if (name == "high" || errors.contains("high"))
                try_collecting(name);
        };
        const std::string bundle = bundle_ + std::to_string(option);
        EXPECT_EQ(unpack(bundle, option), OK) << errno;
        before_openat = nullptr;
        EXPECT_TRUE(errors.contains(bundle + "/config.json"));
        for (const auto& [name, error] : errors)
            EXPECT_EQ(error, EBUSY) << option << " " << name;
    }
}

TEST_F(Unpack, BundleRecordContainsRootAndLayerNames)
{
    add({bottom_, top_});
    const std::string layers = hex_of(bottom_) + '\0' + hex_of(top_) + '\0' + '\0';
    for (const unsigned option : {0U, unsigned{ZNC_OPT_FLATTEN}}) {
        const std::string bundle = bundle_ + std::to_string(option);
        ASSERT_EQ(unpack(bundle, option), OK) << errno;
        EXPECT_EQ(layout::read_file(bundle + "/.zn-layers"), root_of(bundle) + '\0' + layers);
        EXPECT_EQ(names_in(bundle), (std::set<std::string>{".zn-layers", "config.json", "rootfs"}));
    }
}

// The root's own name is the digest of what it holds.
TEST_F(Unpack, ABundleOfOneLayerRemembersNoLayers)
{
    add({bottom_});
    ASSERT_EQ(unpack(bundle_), OK) << errno;
    EXPECT_EQ(names_in(bundle_), (std::set<std::string>{"config.json", "rootfs"}));
}

TEST_F(Unpack, ABundleThatHasItsOwnRootRemembersNoLayers)
{
    without_overlay();
    add({bottom_, top_});
    ASSERT_EQ(unpack(bundle_), OK) << errno;
    EXPECT_EQ(names_in(bundle_), (std::set<std::string>{"config.json", "rootfs"}));
}

TEST_F(Unpack, AnUnpackIntoABundleThatLacksOnlyItsRootfsKeepsTheBundlesRecords)
{
    add({bottom_, top_}, "one");
    add({bottom_}, "two");
    ASSERT_EQ(unpack(bundle_, 0, nullptr, "one"), OK) << errno;
    const std::string layers = layout::read_file(bundle_ + "/.zn-layers");
    const fs::path record = *fs::directory_iterator(base_ + "/records");
    const std::string recorded = layout::read_file(record);
    fs::remove(bundle_ + "/rootfs");
    EXPECT_EQ(unpack(bundle_, 0, nullptr, "two"), ERROR);
    EXPECT_EQ(errno, S_zncLib_BUNDLE_CONFIG_EXISTS);
    EXPECT_EQ(layout::read_file(bundle_ + "/.zn-layers"), layers);
    EXPECT_EQ(layout::read_file(record), recorded);
    EXPECT_EQ(zncStoreCollect(nullptr, 0, 0, nullptr, nullptr), OK);
    EXPECT_TRUE(fs::exists(store_ + "/" + hex_of(top_)));
    EXPECT_TRUE(fs::exists(store_ + "/" + hex_of(bottom_)));
}

// Once the directory is gone another unpack may make the bundle, whose record has the same name.
TEST_F(Unpack, AFailedUnpackRemovesItsRecordBeforeItsBundle)
{
    Image image;
    image.section = ""; // no configuration can be made of it
    image.layers = {bottom_, top_};
    layout_.add(image);
    const auto bundle_records = [this] {
        const std::set<std::string> names = names_in(base_ + "/records");
        return std::count_if(names.begin(), names.end(),
                             [](const std::string& name) { return name.ends_with(".bundle"); });
    };
    std::optional<std::ptrdiff_t> records;
    before_openat = [&](const std::string& name) {
        if (name == "high") // as the tree is extracted: an empty directory would not be opened
            fs::create_directory(bundle_ + "/rootfs/mine");
        if (name == "rootfs") // as the bundle is deleted
            records = bundle_records();
    };
    EXPECT_EQ(unpack(bundle_, ZNC_OPT_FLATTEN), ERROR);
    before_openat = nullptr;
    EXPECT_EQ(records, 0);
    EXPECT_FALSE(fs::exists(bundle_));
}

TEST_F(Unpack, AConfigurationThatCannotBeWrittenLeavesNoDevice)
{
    Image image;
    image.section = ""; // no configuration can be made of it
    image.layers = {bottom_, top_};
    layout_.add(image);
    EXPECT_EQ(unpack(bundle_), ERROR);
    EXPECT_EQ(errno, S_zncLib_BUNDLE_CONFIG_PARAM_INVALID);
    EXPECT_EQ(fake::calls_of("znOvlDevCreate").size(), 1U);
    EXPECT_TRUE(fake::devices().empty());
    EXPECT_TRUE(names_in(base_ + "/records").empty());
}

TEST_F(Unpack, AFlattenedPathThatDoesNotFitIsENAMETOOLONG)
{
    std::string base = dir_.path();
    while (base.size() < 960)
        base += "/" + std::string(std::min<std::size_t>(200, 960 - base.size()), 'x');
    ASSERT_EQ(::setenv("ZNC_BASE", base.c_str(), 1), 0);
    add({bottom_, top_});
    EXPECT_EQ(unpack(bundle_, ZNC_OPT_FLATTEN), ERROR);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_FALSE(fs::exists(bundle_));
}

// ------------------------------------------------------------------ the bundle directory

TEST_F(Unpack, NullPathsAreEINVAL)
{
    add({bottom_});
    errno = 0;
    EXPECT_EQ(zncImageUnpack(nullptr, layout_.c_str(), nullptr, 0, nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(zncImageUnpack(bundle_.c_str(), nullptr, nullptr, 0, nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Unpack, AnImageThatDoesNotParseKeepsItsNumberAndMakesNothing)
{
    EXPECT_EQ(unpack(bundle_), ERROR);
    EXPECT_EQ(errno, S_zncLib_INDEX_NOT_FOUND);
    EXPECT_FALSE(fs::exists(bundle_));
}

TEST_F(Unpack, ABundleDirectoryThatCannotBeMadeKeepsTheNumberOfMkdir)
{
    add({bottom_});
    EXPECT_EQ(unpack(dir_ / "absent/bundle"), ERROR);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Unpack, AnExistingEmptyBundleDirectoryIsUsed)
{
    add({bottom_});
    fs::create_directory(bundle_);
    EXPECT_EQ(unpack(bundle_), OK);
    EXPECT_EQ(names_in(bundle_), (std::set<std::string>{"rootfs", "config.json"}));
}

TEST_F(Unpack, AFailureLeavesAnExistingBundleDirectoryAndRemovesANewOne)
{
    Image image;
    image.section = ""; // no configuration can be made of it
    layout_.add(image);
    fs::create_directory(bundle_);
    layout::write_file(bundle_ + "/mine", "x");
    EXPECT_EQ(unpack(bundle_), ERROR);
    EXPECT_EQ(errno, S_zncLib_BUNDLE_CONFIG_PARAM_INVALID);
    EXPECT_EQ(layout::read_file(bundle_ + "/mine"), "x");
    EXPECT_EQ(unpack(bundle_ + "new"), ERROR);
    EXPECT_EQ(errno, S_zncLib_BUNDLE_CONFIG_PARAM_INVALID);
    EXPECT_FALSE(fs::exists(bundle_ + "new"));
}

TEST_F(Unpack, AFailedRawUnpackRemovesItsBundleWithoutFollowingLinks)
{
    without_overlay();
    const layout::TempDir outside;
    layout::write_file(outside / "precious", "kept");
    std::string damaged = tar({layout::symlink("out", outside.path()), {"bad", "y"}});
    damaged[512] ^= 1;
    add({bottom_, damaged});
    EXPECT_EQ(unpack(bundle_), ERROR);
    EXPECT_FALSE(fs::exists(bundle_));
    EXPECT_EQ(layout::read_file(outside / "precious"), "kept");
}

TEST_F(Unpack, TheSecondUnpackIntoABundleIsBundleRootfsExists)
{
    add({bottom_});
    ASSERT_EQ(unpack(bundle_), OK);
    const std::string config = layout::read_file(bundle_ + "/config.json");
    EXPECT_EQ(unpack(bundle_), ERROR);
    EXPECT_EQ(errno, S_zncLib_BUNDLE_ROOTFS_EXISTS);
    EXPECT_EQ(layout::read_file(bundle_ + "/config.json"), config);
}

TEST_F(Unpack, AnExistingConfigIsBundleConfigExists)
{
    add({bottom_});
    fs::create_directory(bundle_);
    layout::write_file(bundle_ + "/config.json", "mine");
    EXPECT_EQ(unpack(bundle_), ERROR);
    EXPECT_EQ(errno, S_zncLib_BUNDLE_CONFIG_EXISTS);
    EXPECT_EQ(layout::read_file(bundle_ + "/config.json"), "mine");
}

TEST_F(Unpack, ABundlePathTooLongIsBundlePathTooLongAndLeavesNothing)
{
    add({bottom_});
    std::string bundle = dir_.path();
    for (const std::size_t len : {1017U, 1100U}) { // 1017 and "/rootfs" make 1024
        bundle = dir_.path();
        while (bundle.size() < len - 210)
            bundle += "/" + std::string(200, 'x');
        fs::create_directories(bundle);
        bundle += "/" + std::string(len - bundle.size() - 1, 'y');
        EXPECT_EQ(unpack(bundle), ERROR);
        EXPECT_EQ(errno, S_zncLib_BUNDLE_PATH_TOO_LONG);
        EXPECT_FALSE(fs::exists(bundle));
    }
}

TEST_F(Unpack, ABundlePathThatOnlyFitsTheRootfsFailsAndLeavesNothing)
{
    add({bottom_});
    std::string bundle = dir_.path();
    while (bundle.size() < 800)
        bundle += "/" + std::string(200, 'x');
    fs::create_directories(bundle);
    bundle += "/" + std::string(1015 - bundle.size(), 'y'); // 1016 and "/rootfs" make 1023
    EXPECT_EQ(unpack(bundle), ERROR);
    EXPECT_EQ(errno, 0); // no code of its own
    EXPECT_FALSE(fs::exists(bundle));
}

TEST_F(Unpack, AStorageBaseThatCannotBeMadeKeepsItsNumber)
{
    add({bottom_, top_});
    layout::write_file(dir_ / "file", "");
    ASSERT_EQ(::setenv("ZNC_BASE", (dir_ / "file/base").c_str(), 1), 0);
    for (const unsigned option : {0U, 1U}) {
        EXPECT_EQ(unpack(bundle_, option), ERROR);
        EXPECT_EQ(errno, ENOTDIR);
        EXPECT_FALSE(fs::exists(bundle_));
    }
}

TEST_F(Unpack, BundleDeleteRemovesTheTreeButWhatItsLinksPointAt)
{
    const layout::TempDir outside;
    layout::write_file(outside / "precious", "kept");
    fs::create_directories(bundle_ + "/rootfs/d");
    fs::create_directory_symlink(outside.path(), bundle_ + "/rootfs/d/out");
    EXPECT_EQ(zncImageBundleDelete(bundle_.c_str()), OK);
    EXPECT_FALSE(fs::exists(bundle_));
    EXPECT_EQ(layout::read_file(outside / "precious"), "kept");
}

TEST_F(Unpack, BundleDeleteOfNothingFailsWithoutANumber)
{
    errno = EIO;
    EXPECT_EQ(zncImageBundleDelete(nullptr), ERROR);
    EXPECT_EQ(zncImageBundleDelete((dir_ / "absent").c_str()), ERROR);
    EXPECT_EQ(errno, EIO);
}

TEST_F(Unpack, BundleDeleteOfAPathTooLongChangesNothing)
{
    std::string bundle = dir_.path();
    while (bundle.size() < znc::kPathMax)
        bundle += "/" + std::string(200, 'x');
    fs::create_directories(bundle);
    const fs::path here = fs::current_path();
    fs::current_path(bundle);
    layout::write_file("precious", "kept");
    EXPECT_EQ(zncImageBundleDelete(bundle.c_str()), ERROR);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(layout::read_file("precious"), "kept");
    fs::current_path(here);
}

TEST_F(Unpack, EveryAllocationThatFailsFailsTheUnpackAndLeavesNothing)
{
    Image image;
    image.section = R"({"Volumes":{"/v":{}}})";
    image.layers = {bottom_, top_};
    layout_.add(image);
    for (const unsigned option : {0U, ZNC_OPT_FLATTEN, 2U}) {
        if (option == 2)
            without_overlay();
        unsigned nth = 1;
        for (bool whole = false; !whole; ++nth) {
            fake::reset();
            std::error_code ignored;
            fs::remove_all(base_, ignored);
            alloc_fault::arm(nth);
            const STATUS status = unpack(bundle_, option);
            const int error = errno;
            whole = alloc_fault::disarm() < nth;
            ASSERT_EQ(status == OK, fs::exists(bundle_)) << nth;
            if (whole) {
                ASSERT_EQ(status, OK) << nth;
            } else if (status != OK) {
                EXPECT_TRUE(error == ENOMEM || error == 0 ||
                            error == S_zncLib_BUNDLE_CONFIG_PARAM_INVALID)
                    << nth << ": " << error;
            }
            for (const std::string& name : names_in(store_))
                EXPECT_FALSE(name.starts_with(".")) << nth << ": " << name;
            fs::remove_all(bundle_);
            ASSERT_LT(nth, 10000U);
        }
        EXPECT_GT(nth, 50U);
    }
}

// ------------------------------------------------------------------ parts

TEST(PathCompBackup, FindsTheLastSeparatorBeforeAPosition)
{
    const char* path = "/a/bc";
    EXPECT_EQ(pathCompBackup(path, path + 5), path + 2);
    EXPECT_EQ(pathCompBackup(path, path + 2), path);
    EXPECT_EQ(pathCompBackup(path, path), nullptr);
    EXPECT_EQ(pathCompBackup("abc", "abc"), nullptr);
    const char* plain = "abc";
    EXPECT_EQ(pathCompBackup(plain, plain + 3), nullptr);
}

// A record with one layer file, for testing the steps after parsing.
class Steps : public Unpack {
  protected:
    void SetUp() override
    {
        Unpack::SetUp();
        image_.reset(zncImageInfoCreate());
        image_->manifests = znc::malloc_array<ZNC_IMAGE_MANIFEST>(1).release();
        image_->manifestsCount = 1;
        image_->manifestsIndex = 0;
        image_->manifests[0].manifestLayers =
            znc::malloc_array<ZNC_IMAGE_MANIFEST_LAYERS>(1).release();
        image_->manifests[0].manifestLayersCount = 1;
    }
    void set_layer(const std::string& path)
    {
        char* name = image_->manifests[0].manifestLayers[0].layerFileName;
        ASSERT_LT(path.size(), znc::kPathMax);
        path.copy(name, path.size());
        digest_.reset(cJSON_CreateString(("sha256:" + hex_of(top_)).c_str()));
        image_->manifests[0].manifestLayers[0].digest = digest_.get();
    }
    STATUS extract(const std::string& store)
    {
        std::vector<char> repository(znc::kPathMax);
        store.copy(repository.data(), store.size());
        errno = 0;
        const STATUS status =
            zncImageExtractLayersEx(image_.get(), repository.data(), store.size(), list_);
        repository_ = repository.data();
        return status;
    }
    CJsonPtr digest_;
    znc::OciImagePtr image_;
    char text_[znc::kPathMax] = {};
    char* list_[1] = {text_};
    std::string repository_;
};

TEST_F(Steps, ALayerFileWithoutSeparatorIsEINVAL)
{
    set_layer("layer");
    EXPECT_EQ(extract(dir_ / "store"), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Steps, AStorePathThatDoesNotFitIsENAMETOOLONG)
{
    set_layer("/img/" + std::string(23, 'f')); // 24 with its separator
    std::string store = dir_.path();
    while (store.size() < 999)
        store += "/" + std::string(std::min<std::size_t>(200, 998 - store.size()), 'x');
    EXPECT_EQ(extract(store + "x"), ERROR);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(extract(store), ERROR);
    EXPECT_EQ(errno, ENOENT); // the path fits; only the layer does not exist
}

TEST_F(Steps, TheStoreDirectoryIsMadeWithItsParentsAndReported)
{
    layout::write_file(dir_ / "layer", top_);
    set_layer(dir_ / "layer");
    ASSERT_EQ(extract(dir_ / "deep/store"), OK);
    EXPECT_EQ(std::string(text_), dir_ / "deep/store/layer");
    EXPECT_EQ(repository_, text_);
    EXPECT_EQ(layout::read_file(dir_ / "deep/store/layer/high"), "high");
    EXPECT_EQ(names_in(dir_ / "deep/store"), (std::set<std::string>{"layer"}));
}

TEST_F(Steps, TheFirstLayerThatCannotBeExtractedEndsTheExtraction)
{
    set_layer(dir_ / "absent");
    fs::create_directory(dir_ / "root");
    EXPECT_EQ(zncImageExtractLayers(image_.get(), (dir_ / "root").c_str()), ERROR);
}

TEST_F(Steps, TheChainIdIsWrittenAs64Digits)
{
    std::uint8_t* chain = image_->manifests[0].manifestConfig.imageConfig.imageCfgRootfs.chainId;
    for (unsigned i = 0; i < 32; ++i)
        chain[i] = static_cast<std::uint8_t>(0xf0 + i);
    char text[65];
    ASSERT_EQ(zncImageGetStringChainID(image_.get(), text), OK);
    EXPECT_STREQ(text, "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff000102030405060708090a0b0c0d0e0f");
}

TEST_F(Steps, WithoutAManifestChosenNothingIsDone)
{
    image_->manifestsIndex = -1;
    char text[65];
    EXPECT_EQ(zncImageGetStringChainID(image_.get(), text), ERROR);
    EXPECT_EQ(extract(dir_ / "store"), ERROR);
    EXPECT_EQ(zncImageExtractLayers(image_.get(), dir_.path().c_str()), ERROR);
    EXPECT_EQ(zncCreateOciRootfs(image_.get(), bundle_.c_str(), RAW_ROOTFS), nullptr);
}

TEST_F(Steps, AnUnknownKindOfRootIsRefused)
{
    EXPECT_EQ(zncCreateOciRootfs(image_.get(), bundle_.c_str(), 3), nullptr);
}

// ------------------------------------------------------------------ the store under fire

class Child {
  public:
    explicit Child(const std::function<bool()>& body) : pid_(::fork())
    {
        if (pid_ == 0)
            ::_exit(body() ? 0 : 1);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child()
    {
        if (pid_ > 0) {
            signal(SIGKILL);
            (void)succeeded();
        }
    }
    void signal(int number) const { ::kill(pid_, number); }
    // Waits until the process has stopped; returns false if it exits instead.
    [[nodiscard]] bool stands_still() const
    {
        int status = 0;
        return eventually([&] { return ::waitpid(pid_, &status, WUNTRACED | WNOHANG) != 0; }) &&
               WIFSTOPPED(status);
    }
    bool succeeded()
    {
        int status = 0;
        const bool waited = ::waitpid(pid_, &status, 0) == pid_;
        pid_ = -1;
        return waited && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

  private:
    pid_t pid_;
};

class Store : public Unpack {
  protected:
    static constexpr int kFiles = 10000;

    void SetUp() override
    {
        Unpack::SetUp();
        std::vector<Member> members;
        for (int i = 0; i < kFiles; ++i)
            members.push_back({"f" + std::to_string(i), "x"});
        big_ = tar(members);
        add({big_}, "big");
        add({top_}, "small");
    }
    bool unpack_as(const std::string& name, const std::string& tag)
    {
        return unpack(dir_ / name, 0, nullptr, tag.c_str()) == OK;
    }
    // Starts an unpack in a process that stops itself in the middle, before it creates its
    // hundredth file.
    bool stop_in_the_middle(const std::string& name)
    {
        before_openat = [](const std::string& file) {
            if (file == "f100")
                ::kill(::getpid(), SIGSTOP);
        };
        return unpack_as(name, "big");
    }
    // The directory into which another process extracts the big layer.
    [[nodiscard]] std::optional<fs::path> stage() const
    {
        for (const std::string& name : names_in(store_))
            if (name.starts_with(".unpack-") && fs::exists(fs::path(store_) / name / "f99"))
                return fs::path(store_) / name;
        return std::nullopt;
    }
    void expect_store(const std::set<std::string>& layers)
    {
        EXPECT_EQ(names_in(store_), layers);
        if (layers.contains(hex_of(big_))) {
            EXPECT_EQ(names_in(store_ + "/" + hex_of(big_)).size(),
                      static_cast<std::size_t>(kFiles));
        }
    }
    std::string big_;
};

TEST_F(Store, AnExtractionKilledLeavesNoLayerAndTheNextUnpackCleansUp)
{
    Child victim([&] { return stop_in_the_middle("b1"); });
    ASSERT_TRUE(victim.stands_still());
    const std::optional<fs::path> half = stage();
    ASSERT_TRUE(half);
    victim.signal(SIGKILL);
    ASSERT_FALSE(victim.succeeded());
    ASSERT_TRUE(fs::exists(*half));
    EXPECT_FALSE(fs::exists(store_ + "/" + hex_of(big_)));

    ASSERT_TRUE(unpack_as("b2", "small"));
    EXPECT_FALSE(fs::exists(*half));
    expect_store({hex_of(top_)});
    ASSERT_TRUE(unpack_as("b3", "big"));
    expect_store({hex_of(top_), hex_of(big_)});
}

TEST_F(Store, ALiveExtractionIsNotTakenForALeftover)
{
    Child slow([&] { return stop_in_the_middle("b1"); });
    ASSERT_TRUE(slow.stands_still());
    const std::optional<fs::path> half = stage();
    ASSERT_TRUE(half);
    ASSERT_TRUE(unpack_as("b2", "small"));
    EXPECT_TRUE(fs::exists(*half / "f99"));
    slow.signal(SIGCONT);
    EXPECT_TRUE(slow.succeeded());
    expect_store({hex_of(top_), hex_of(big_)});
}

TEST_F(Store, OfTwoExtractionsOfOneLayerBothSucceedAndOneCopyStays)
{
    Child slow([&] { return stop_in_the_middle("b1"); });
    ASSERT_TRUE(slow.stands_still());
    ASSERT_TRUE(stage());
    ASSERT_TRUE(unpack_as("b2", "big"));
    const fs::path layer = store_ + "/" + hex_of(big_);
    layout::write_file(layer / "f0", "the first copy");
    slow.signal(SIGCONT);
    EXPECT_TRUE(slow.succeeded());
    EXPECT_EQ(layout::read_file(layer / "f0"), "the first copy");
    expect_store({hex_of(big_)});
    EXPECT_EQ(root_of(dir_ / "b1"), root_of(dir_ / "b2"));
}

TEST_F(Store, TasksOfOneProcessMayUnpackOneImageTogether)
{
    constexpr int kTasks = 8;
    std::vector<std::thread> tasks;
    std::vector<int> good(kTasks);
    for (int i = 0; i < kTasks; ++i)
        tasks.emplace_back([&, i] {
            good[static_cast<std::size_t>(i)] =
                unpack_as("b" + std::to_string(i), i % 2 == 0 ? "big" : "small") ? 1 : 0;
        });
    for (std::thread& task : tasks)
        task.join();
    EXPECT_EQ(good, std::vector<int>(kTasks, 1));
    expect_store({hex_of(top_), hex_of(big_)});
}

TEST_F(Store, ALockFileLeftByADeadProcessDoesNotBlock)
{
    fs::create_directories(store_);
    layout::write_file(base_ + "/.lock", "");
    fs::create_directories(store_ + "/.unpack-000000/d");
    ASSERT_TRUE(unpack_as("b1", "small"));
    expect_store({hex_of(top_)});
}

TEST_F(Store, ALinkInTheLocksPlaceIsRefused)
{
    fs::create_directories(store_);
    fs::create_symlink(dir_ / "elsewhere", base_ + "/.lock");
    EXPECT_FALSE(unpack_as("b1", "small"));
    EXPECT_FALSE(fs::exists(dir_ / "elsewhere"));
}

} // namespace

int __wrap_openat(int dir, const char* name, int flags, ...)
{
    va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    if (before_openat)
        before_openat(name);
    return __real_openat(dir, name, flags, mode);
}
