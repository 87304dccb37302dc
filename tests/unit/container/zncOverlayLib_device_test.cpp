// Tests of overlay devices on the real overlay filesystem.
#include "test_tree.hpp"
#include "zarnel/overlay.h"
#include "zncontainer.h"

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

using test_tree::exists;
using test_tree::read_file;
using test_tree::TempDir;
using test_tree::write_file;

namespace {

constexpr const char* kDevice = "/overlay/device-test";

class OverlayDevice : public ::testing::Test {
  protected:
    void SetUp() override
    {
        for (const char* name : {"upper", "middle", "lower"})
            std::filesystem::create_directories(dir_ / name);
        write_file(dir_ / "middle/both", "middle");
        write_file(dir_ / "lower/both", "lower");
        write_file(dir_ / "lower/only", "lower");
    }
    void TearDown() override { zncRemoveOvlRootfsDev(kDevice); }

    STATUS create(std::vector<std::string> names, BOOL has_upper)
    {
        std::vector<const char*> dirs;
        for (std::string& name : names) {
            name = dir_ / name;
            dirs.push_back(name.c_str());
        }
        errno = 0;
        return zncCreateOvlRootfsDev(kDevice, dirs.data(), static_cast<uint32_t>(dirs.size()),
                                     has_upper);
    }

    static std::string in_device(const char* name) { return std::string(kDevice) + "/" + name; }

    TempDir dir_;
};

TEST_F(OverlayDevice, ShowsTheDirectoriesStackedTheFirstOnTop)
{
    ASSERT_EQ(create({"middle", "lower"}, FALSE), OK) << strerror(errno);
    EXPECT_EQ(read_file(in_device("both")), "middle");
    EXPECT_EQ(read_file(in_device("only")), "lower");
    EXPECT_THROW(write_file(in_device("new"), ""), std::runtime_error) << "read-only";
}

TEST_F(OverlayDevice, WithAnUpperTheFirstDirectoryTakesWhatIsWritten)
{
    ASSERT_EQ(create({"upper", "middle", "lower"}, TRUE), OK) << strerror(errno);
    write_file(in_device("both"), "changed");
    write_file(in_device("new"), "new");
    EXPECT_EQ(read_file(dir_ / "upper/both"), "changed");
    EXPECT_EQ(read_file(dir_ / "upper/new"), "new");
    EXPECT_EQ(read_file(dir_ / "middle/both"), "middle");
    EXPECT_EQ(read_file(dir_ / "lower/both"), "lower");
}

TEST_F(OverlayDevice, ExistingDeviceFailsWithEEXIST)
{
    ASSERT_EQ(create({"middle", "lower"}, FALSE), OK) << strerror(errno);
    EXPECT_EQ(create({"middle", "lower"}, FALSE), ERROR);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(read_file(in_device("both")), "middle");
}

TEST_F(OverlayDevice, RefusedAttachFailsAndLeavesNothing)
{
    EXPECT_EQ(create({"middle", "missing"}, FALSE), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(exists(kDevice));
    EXPECT_EQ(create({"middle", "lower"}, FALSE), OK) << strerror(errno);
}

TEST_F(OverlayDevice, RemovedDeviceIsGoneAndCanBeMadeAgain)
{
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(create({"middle", "lower"}, FALSE), OK) << strerror(errno);
        ASSERT_EQ(zncRemoveOvlRootfsDev(kDevice), OK) << strerror(errno);
        EXPECT_FALSE(exists(kDevice));
    }
    errno = 0;
    EXPECT_EQ(zncRemoveOvlRootfsDev(kDevice), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(read_file(dir_ / "lower/only"), "lower");
}

TEST_F(OverlayDevice, BareDirectoryCannotBeUnmounted)
{
    ASSERT_EQ(mkdir(kDevice, 0755), 0);
    errno = 0;
    EXPECT_EQ(zncRemoveOvlRootfsDev(kDevice), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(exists(kDevice));
    EXPECT_EQ(rmdir(kDevice), 0);
}

} // namespace
