#include "zncTreeDelete.hpp"

#include "alloc_fault.hpp"
#include "base/owned.hpp"
#include "test_tree.hpp"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/sysmacros.h>

#include <gtest/gtest.h>

using test_tree::exists;
using test_tree::TempDir;
using test_tree::write_file;

namespace {

STATUS remove_tree(const std::string& path)
{
    errno = 0;
    return znc::delete_foreign_tree(path.c_str());
}

TEST(ForeignTree, LinksAreRemovedAndNeverFollowed)
{
    const TempDir dir;
    std::filesystem::create_directories(dir / "outside/sub");
    write_file(dir / "outside/f", "precious");
    std::filesystem::create_directories(dir / "tree/usr/bin");
    write_file(dir / "tree/usr/bin/sh", "");
    ASSERT_EQ(symlink("usr/bin", (dir / "tree/bin").c_str()), 0);
    ASSERT_EQ(symlink((dir / "outside").c_str(), (dir / "tree/out").c_str()), 0);
    ASSERT_EQ(symlink("../../outside", (dir / "tree/usr/out").c_str()), 0);
    ASSERT_EQ(symlink("..", (dir / "tree/usr/up").c_str()), 0);
    ASSERT_EQ(symlink("loop", (dir / "tree/loop").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (dir / "tree/dangling").c_str()), 0);
    EXPECT_EQ(remove_tree(dir / "tree"), OK);
    EXPECT_FALSE(exists(dir / "tree"));
    EXPECT_TRUE(exists(dir / "outside/sub"));
    EXPECT_EQ(test_tree::read_file(dir / "outside/f"), "precious");
}

TEST(ForeignTree, EveryKindOfFileIsRemoved)
{
    const TempDir dir;
    std::filesystem::create_directories(dir / "tree/work/work");
    ASSERT_EQ(mkfifo((dir / "tree/fifo").c_str(), 0600), 0);
    ASSERT_EQ(mknod((dir / "tree/whiteout").c_str(), S_IFCHR, makedev(0, 0)), 0);
    ASSERT_EQ(mknod((dir / "tree/socket").c_str(), S_IFSOCK | 0600, 0), 0);
    write_file(dir / "tree/work/readonly", "");
    ASSERT_EQ(chmod((dir / "tree/work/readonly").c_str(), 0), 0);
    write_file(dir / "tree/work/work/f", "");
    ASSERT_EQ(chmod((dir / "tree/work/work").c_str(), 0), 0);
    EXPECT_EQ(remove_tree(dir / "tree"), OK);
    EXPECT_FALSE(exists(dir / "tree"));
}

TEST(ForeignTree, FileIsRemovedAndMissingPathFailsAsTheTreeDeleteDoes)
{
    const TempDir dir;
    write_file(dir / "file", "");
    ASSERT_EQ(symlink("nowhere", (dir / "dangling").c_str()), 0);
    EXPECT_EQ(remove_tree(dir / "file"), OK);
    EXPECT_EQ(remove_tree(dir / "dangling"), OK);
    EXPECT_FALSE(exists(dir / "dangling"));
    EXPECT_EQ(remove_tree(dir / "none"), ERROR);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(znc::delete_foreign_tree(nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

TEST(ForeignTree, LinkAtTheTopIsTheCallersAndFollowed)
{
    const TempDir dir;
    std::filesystem::create_directories(dir / "bundle/rootfs");
    ASSERT_EQ(symlink("bundle", (dir / "link").c_str()), 0);
    EXPECT_EQ(remove_tree(dir / "link"), OK);
    EXPECT_TRUE(std::filesystem::is_empty(dir / "bundle"));
}

TEST(ForeignTree, FourThousandLevelsGoWithAHandfulOfDescriptors)
{
    const TempDir dir;
    ASSERT_EQ(mkdir((dir / "tree").c_str(), 0700), 0);
    {
        znc::UniqueFd at(open((dir / "tree").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        for (int level = 0; level < 4000; ++level) {
            ASSERT_EQ(symlinkat("/", at.get(), "link"), 0);
            ASSERT_EQ(mkdirat(at.get(), "beside", 0700), 0);
            ASSERT_EQ(mkdirat(at.get(), "deeper", 0700), 0);
            ASSERT_EQ(symlinkat("..", at.get(), "beside/up"), 0);
            at.reset(openat(at.get(), "deeper", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            ASSERT_TRUE(at);
        }
    }
    struct rlimit old = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    struct rlimit few = old;
    few.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    const STATUS result = remove_tree(dir / "tree");
    const int err = errno;
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(result, OK) << strerror(err);
    EXPECT_FALSE(exists(dir / "tree"));
}

TEST(ForeignTree, WideDirectoriesBelowTheOpenLevelsAreRemoved)
{
    const TempDir dir;
    std::string path = dir / "tree";
    for (int level = 0; level < 40; ++level)
        path += "/d";
    for (int i = 0; i < 300; ++i) {
        const std::string sub = path + "/" + std::to_string(i);
        std::filesystem::create_directories(sub + "/x");
        write_file(sub + "/f", "");
        ASSERT_EQ(symlink("/", (sub + "/x/l").c_str()), 0);
    }
    EXPECT_EQ(remove_tree(dir / "tree"), OK);
    EXPECT_FALSE(exists(dir / "tree"));
}

TEST(ForeignTree, MountPointFailsWithEBUSYAndIsNotEntered)
{
    const TempDir dir;
    for (const std::string& path : {dir / "tree/mnt", dir / ("deep" + std::string(80, 'x'))}) {
        std::filesystem::create_directories(path);
        ASSERT_EQ(mount("none", path.c_str(), "tmpfs", 0, nullptr), 0);
        write_file(path + "/f", "not the tree's");
        EXPECT_EQ(remove_tree(dir.path()), ERROR);
        EXPECT_EQ(errno, EBUSY);
        EXPECT_EQ(test_tree::read_file(path + "/f"), "not the tree's");
        ASSERT_EQ(umount(path.c_str()), 0);
    }
}

TEST(ForeignTree, BindOfADirectoryOfTheSameFilesystemIsNotEntered)
{
    const TempDir dir;
    std::filesystem::create_directories(dir / "tree/bound");
    std::filesystem::create_directories(dir / "outside");
    write_file(dir / "outside/f", "precious");
    ASSERT_EQ(
        mount((dir / "outside").c_str(), (dir / "tree/bound").c_str(), nullptr, MS_BIND, nullptr),
        0);
    EXPECT_EQ(remove_tree(dir / "tree"), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(test_tree::read_file(dir / "outside/f"), "precious");
    ASSERT_EQ(umount((dir / "tree/bound").c_str()), 0);
}

TEST(ForeignTree, FileThatCannotBeRemovedFailsAndDoesNotHang)
{
    const TempDir dir;
    std::filesystem::create_directories(dir / "tree/a");
    write_file(dir / "tree/a/pinned", "");
    ASSERT_EQ(mount("/dev/null", (dir / "tree/a/pinned").c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(remove_tree(dir / "tree"), ERROR);
    EXPECT_EQ(errno, EBUSY);
    ASSERT_EQ(umount((dir / "tree/a/pinned").c_str()), 0);
}

TEST(ForeignTree, ReadOnlyFilesystemFailsWithEROFSAndDoesNotHang)
{
    const TempDir dir;
    std::filesystem::create_directories(dir / "ro");
    ASSERT_EQ(mount("none", (dir / "ro").c_str(), "tmpfs", 0, nullptr), 0);
    std::filesystem::create_directories(dir / "ro/a/b");
    ASSERT_EQ(mount(nullptr, (dir / "ro").c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(remove_tree(dir / "ro"), ERROR);
    EXPECT_EQ(errno, EROFS);
    ASSERT_EQ(umount((dir / "ro").c_str()), 0);
}

TEST(ForeignTree, WithoutADescriptorItFails)
{
    const TempDir dir;
    std::filesystem::create_directories(dir / "tree/a");
    struct rlimit old = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    struct rlimit none = old;
    none.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const STATUS result = remove_tree(dir / "tree");
    const int err = errno;
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(result, ERROR);
    EXPECT_EQ(err, EMFILE);
    EXPECT_TRUE(exists(dir / "tree/a"));
}

TEST(ForeignTree, ADeepTreeNeedsOnlyAFewDescriptors)
{
    const TempDir dir;
    std::string path = dir / "tree";
    for (int level = 0; level < 110; ++level)
        path += "/d";
    std::filesystem::create_directories(path);
    struct rlimit usual;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const int first_free = open("/", O_PATH | O_CLOEXEC);
    close(first_free);
    const struct rlimit few = {static_cast<rlim_t>(first_free + 5), usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    EXPECT_EQ(remove_tree(dir / "tree"), OK) << errno;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_FALSE(exists(dir / "tree"));
}

TEST(ForeignTree, EveryFailedAllocationFailsOrIsNotNeeded)
{
    const TempDir dir;
    const auto make = [&] {
        std::string path = dir / "tree";
        for (int level = 0; level < 110; ++level)
            path += "/d";
        std::filesystem::create_directories(path);
    };
    make();
    alloc_fault::arm(0);
    ASSERT_EQ(znc::delete_foreign_tree((dir / "tree").c_str()), OK);
    const unsigned asked = alloc_fault::disarm();
    ASSERT_GE(asked, 3u);
    for (unsigned nth = 1; nth <= asked; ++nth) {
        make();
        alloc_fault::arm(nth);
        errno = 0;
        const STATUS result = znc::delete_foreign_tree((dir / "tree").c_str());
        const int err = errno;
        alloc_fault::disarm();
        // If the allocation for the last scan of the final delete fails, nothing is lost.
        EXPECT_TRUE((result == ERROR && err == ENOMEM) || !exists(dir / "tree")) << nth;
    }
}

} // namespace
