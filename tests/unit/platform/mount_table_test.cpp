// Tests of reading the mount table.
#include "system/mount_table.hpp"

#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>

namespace {

TEST(MountTable, FindsAMountWithItsTypeDeviceAndOptions)
{
    const std::string point = "/tmp/mount point\nof a test\\";
    std::filesystem::create_directory(point);
    ASSERT_EQ(::mount("tmpfs", point.c_str(), "tmpfs", 0, "size=64k,mode=0700"), 0);
    struct stat st = {};
    EXPECT_EQ(::stat(point.c_str(), &st), 0);
    zn::MountTable table;
    zn::Mount mount;
    int found = 0;
    while (table.next(mount)) {
        if (point != mount.point)
            continue;
        found++;
        EXPECT_STREQ(mount.type, "tmpfs");
        EXPECT_EQ(mount.device, st.st_dev);
        EXPECT_NE(std::strstr(mount.options, "size=64k"), nullptr) << mount.options;
    }
    EXPECT_TRUE(table.complete());
    EXPECT_EQ(found, 1);
    EXPECT_EQ(::umount(point.c_str()), 0);
    std::filesystem::remove(point);
}

TEST(MountTable, DecodesOnlyWholeEscapes)
{
    char text[] = "a\\040b\\134\\04";
    zn::mount_unescape(text);
    EXPECT_STREQ(text, "a b\\\\04");
}

} // namespace
