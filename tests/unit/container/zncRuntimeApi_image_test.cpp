// Tests of the client functions for images. No daemon runs.
#include "zncOwned.hpp"
#include "zncprotocol.h"

#include "alloc_fault.hpp"
#include "layout_builder.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>

namespace {

namespace fs = std::filesystem;
using Text = znc::MallocPtr<char>;

class ImageApi : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(zncDaemonIsAlive(), FALSE);
        fs::remove("/overlay"); // without overlay each bundle has its own copy
    }
    layout::TempDir dir_;
    layout::Layout layout_{dir_.path() / "img"};
};

TEST_F(ImageApi, UnpackNeedsNoDaemon)
{
    layout_.add({});
    const std::string bundle = dir_ / "bundle";
    ASSERT_EQ(zncUnpack(bundle.c_str(), layout_.c_str(), nullptr, 0, nullptr), OK) << errno;
    EXPECT_EQ(layout::read_file(bundle + "/rootfs/file"), "content");
    EXPECT_TRUE(fs::exists(bundle + "/config.json"));
}

TEST_F(ImageApi, UnpackPassesAllArgumentsOn)
{
    layout::Image image;
    image.name = "v1";
    image.os = "linux";
    image.arch = "arm64";
    layout_.add(image);
    const ZNC_BUNDLE_ATTR attr = {"linux", "arm64"};
    const std::string bundle = dir_ / "bundle";
    EXPECT_EQ(zncUnpack(bundle.c_str(), layout_.c_str(), nullptr, 0, &attr), ERROR);
    EXPECT_EQ(zncUnpack(bundle.c_str(), layout_.c_str(), "v1", 0, nullptr), ERROR);
    EXPECT_EQ(zncUnpack(bundle.c_str(), layout_.c_str(), "v1", ZNC_OPT_FLATTEN, &attr), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(zncUnpack(bundle.c_str(), layout_.c_str(), "v1", 0, &attr), OK);
}

TEST_F(ImageApi, UnpackLeavesTheNumberOfTheImageSubsystem)
{
    EXPECT_EQ(zncUnpack((dir_ / "bundle").c_str(), layout_.c_str(), nullptr, 0, nullptr), ERROR);
    EXPECT_EQ(errno, S_zncLib_INDEX_NOT_FOUND);
}

TEST_F(ImageApi, NullPathsAreEINVAL)
{
    errno = 0;
    EXPECT_EQ(zncUnpack(nullptr, layout_.c_str(), nullptr, 0, nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(zncUnpack("/tmp/x", nullptr, nullptr, 0, nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(zncImageInfoGet(nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(ImageApi, InfoIsTheFormattedArrayAndNeedsNoDaemon)
{
    layout_.add({});
    const Text info(zncImageInfoGet(layout_.c_str()));
    ASSERT_NE(info, nullptr);
    const znc::CJsonPtr array(cJSON_Parse(info.get()));
    EXPECT_EQ(cJSON_GetArraySize(array.get()), 1);
    const znc::CJsonText formatted(cJSON_Print(array.get()));
    EXPECT_STREQ(info.get(), formatted.get());
}

TEST_F(ImageApi, InfoOfAnInspectionWithoutManifestsIsAnEmptyArray)
{
    // The only case in which inspection succeeds without finding anything: the path does not fit.
    const Text info(zncImageInfoGet(std::string(1100, 'x').c_str()));
    ASSERT_NE(info, nullptr);
    EXPECT_STREQ(info.get(), "[]");
}

TEST_F(ImageApi, InfoReportsTheNumberOfTheInspection)
{
    EXPECT_EQ(zncImageInfoGet((dir_ / "absent").c_str()), nullptr);
    EXPECT_EQ(errno, S_zncLib_LAYOUT_NOT_FOUND);
}

TEST_F(ImageApi, InfoWithoutMemoryForTheArrayIsENOMEM)
{
    layout_.add({});
    errno = 0;
    alloc_fault::arm(1);
    char* info = zncImageInfoGet(layout_.c_str());
    const int error = errno;
    alloc_fault::disarm();
    EXPECT_EQ(info, nullptr);
    EXPECT_EQ(error, ENOMEM);
}

} // namespace
