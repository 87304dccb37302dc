// Tests of setting the sticky bit of directories inside a root.

#include "zarnel/fs.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

mode_t mode_of(const fs::path& path)
{
    struct stat st = {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0);
    return st.st_mode & 07777U;
}

class DirMakeSticky : public testing::Test {
  protected:
    DirMakeSticky()
    {
        fs::create_directories(dir_ / "root/a/b");
        fs::create_directory(dir_ / "outside");
        ::chmod((dir_ / "root/a/b").c_str(), 0777);
    }
    ~DirMakeSticky() override { fs::remove_all(dir_); }
    int error_of(const char* path)
    {
        errno = 0;
        return znDirMakeSticky((dir_ / "root").c_str(), path) == OK ? 0 : errno;
    }
    fs::path dir_ = fs::path("/tmp/sticky_test." + std::to_string(::getpid()));
};

} // namespace

TEST_F(DirMakeSticky, KeepsTheOtherBits)
{
    EXPECT_EQ(error_of("/a/b"), 0);
    EXPECT_EQ(mode_of(dir_ / "root/a/b"), 01777U);
    EXPECT_EQ(error_of("a/b"), 0);
    EXPECT_EQ(mode_of(dir_ / "root/a/b"), 01777U);
}

TEST_F(DirMakeSticky, StaysInsideTheRoot)
{
    fs::create_directory_symlink(dir_ / "outside", dir_ / "root/far");
    fs::create_directory_symlink("/a", dir_ / "root/way");
    EXPECT_EQ(error_of("/../outside"), ENOENT);
    EXPECT_EQ(error_of("/far"), ENOTDIR);
    EXPECT_EQ(error_of("/far/."), ENOENT);
    EXPECT_EQ(error_of("/way/b"), 0);
    EXPECT_EQ(mode_of(dir_ / "outside") & 01000U, 0U);
}

TEST_F(DirMakeSticky, TakesDirectoriesAlone)
{
    ASSERT_EQ(::mkfifo((dir_ / "root/fifo").c_str(), 0600), 0);
    EXPECT_EQ(error_of("/fifo"), ENOTDIR);
    EXPECT_EQ(error_of("/none"), ENOENT);
    EXPECT_EQ(znDirMakeSticky(nullptr, "/a"), ERROR);
}
