// Tests of directories that are deleted later.
#include "zncTrash.hpp"

#include "base/owned.hpp"
#include "eventually.hpp"
#include "test_tree.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

class Trash : public testing::Test {
  protected:
    void SetUp() override
    {
        ::setenv("ZNC_BASE", base_.c_str(), 1);
        fs::create_directories(area_);
    }
    void TearDown() override
    {
        EXPECT_TRUE(znc::trash_settled(60000));
        ::unsetenv("ZNC_BASE");
    }
    // Creates a container's directory with `files` files.
    std::string tree(const std::string& id, int files) const
    {
        const std::string upper = area_ + "/" + id + "/upper/data";
        fs::create_directories(upper);
        for (int i = 0; i < files; i++)
            std::ofstream(upper + "/" + std::to_string(i)) << "x";
        return area_ + "/" + id;
    }
    std::string in_trash() const
    {
        std::string names;
        for (const auto& entry : fs::directory_iterator(trash_))
            names += entry.path().filename().string() + "\n";
        return names;
    }

    const test_tree::TempDir dir_;
    const std::string base_ = dir_.path() + "/base";
    const std::string area_ = base_ + "/containers";
    const std::string trash_ = base_ + "/.trash";
};

TEST_F(Trash, TakingMovesTheWholeTreeToTheTrash)
{
    const std::string web = tree("web", 300);
    ASSERT_EQ(znc::trash_take(web.c_str()), OK) << std::strerror(errno);
    EXPECT_FALSE(fs::exists(web));
    EXPECT_EQ(test_tree::mode_of(trash_), 0700U);
    const fs::path taken = fs::directory_iterator(trash_)->path();
    EXPECT_TRUE(fs::exists(taken / "upper/data/299"));
}

TEST_F(Trash, EmptyingDeletesEverythingAndTheTrashItself)
{
    const std::string outside = dir_.path() + "/precious";
    std::ofstream(outside) << "x";
    for (int i = 0; i < 10; i++) {
        const std::string id = "c" + std::to_string(i);
        fs::create_symlink(outside, tree(id, 300) + "/upper/link");
        fs::create_directory_symlink(dir_.path(), area_ + "/" + id + "/upper/up");
        ASSERT_EQ(znc::trash_take((area_ + "/" + id).c_str()), OK) << std::strerror(errno);
        znc::trash_empty();
    }
    EXPECT_TRUE(eventually([&] { return !fs::exists(trash_); }));
    EXPECT_TRUE(fs::exists(outside));
    EXPECT_TRUE(fs::is_empty(area_));
}

TEST_F(Trash, LeftoversOfADeadProcessAreDeletedByTheNextEmptying)
{
    fs::create_directories(trash_ + "/left/upper/deep");
    ::chmod(trash_.c_str(), 0700);
    std::ofstream(trash_ + "/left/upper/deep/file") << "x";
    znc::trash_empty();
    EXPECT_TRUE(eventually([&] { return !fs::exists(trash_); }));
}

TEST_F(Trash, UndeletableEntriesStayAndTheRestIsDeleted)
{
    fs::create_directories(trash_ + "/stuck/mount");
    fs::create_directories(trash_ + "/other/upper");
    ::chmod(trash_.c_str(), 0700);
    ASSERT_EQ(::mount("tmpfs", (trash_ + "/stuck/mount").c_str(), "tmpfs", 0, nullptr), 0);
    znc::trash_empty();
    EXPECT_TRUE(znc::trash_settled(60000));
    EXPECT_EQ(in_trash(), "stuck\n");
    ASSERT_EQ(::umount((trash_ + "/stuck/mount").c_str()), 0);
    znc::trash_empty();
    EXPECT_TRUE(eventually([&] { return !fs::exists(trash_); }));
}

TEST_F(Trash, WhatIsLeftForLackOfDescriptorsIsDeletedByARetry)
{
    struct rlimit usual = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
    const auto first = static_cast<rlim_t>(znc::UniqueFd(::open("/", O_PATH | O_CLOEXEC)).get());
    int left = 0;
    for (rlim_t spare = 0; spare < 8; spare++) {
        ASSERT_EQ(znc::trash_take(tree("web", 1).c_str()), OK);
        const struct rlimit few = {first + spare, usual.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
        znc::trash_empty();
        EXPECT_TRUE(znc::trash_settled(60000));
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0);
        left += fs::exists(trash_) ? 1 : 0;
        znc::trash_retry();
        EXPECT_TRUE(znc::trash_settled(60000));
        EXPECT_FALSE(fs::exists(trash_)) << spare << " spare descriptors";
    }
    EXPECT_GT(left, 1);
    EXPECT_LT(left, 8) << "the last ones are enough";
}

TEST_F(Trash, ARetryDoesNothingIfNothingWasLeft)
{
    ASSERT_EQ(znc::trash_take(tree("web", 1).c_str()), OK);
    znc::trash_empty();
    EXPECT_TRUE(znc::trash_settled(60000));
    ASSERT_EQ(znc::trash_take(tree("web", 1).c_str()), OK);
    znc::trash_retry();
    EXPECT_TRUE(znc::trash_settled(60000));
    EXPECT_TRUE(fs::exists(trash_));
    znc::trash_empty();
}

TEST_F(Trash, ATrashOfAnotherUserOrALinkIsNotUsed)
{
    const std::string web = tree("web", 1);
    fs::create_directory(trash_);
    ASSERT_EQ(::chown(trash_.c_str(), 1000, 1000), 0);
    EXPECT_EQ(znc::trash_take(web.c_str()), ERROR);
    EXPECT_EQ(errno, EPERM);
    fs::remove(trash_);
    fs::create_directory(dir_ / "elsewhere");
    std::ofstream(dir_ / "elsewhere/file") << "x";
    fs::create_directory_symlink(dir_ / "elsewhere", trash_);
    EXPECT_EQ(znc::trash_take(web.c_str()), ERROR);
    znc::trash_empty();
    EXPECT_TRUE(znc::trash_settled(60000));
    EXPECT_TRUE(fs::exists(web));
    EXPECT_TRUE(fs::exists(dir_ / "elsewhere/file"));
    fs::remove(trash_);
}

TEST_F(Trash, TakingAMissingTreeFailsWithENOENT)
{
    EXPECT_EQ(znc::trash_take((area_ + "/none").c_str()), ERROR);
    EXPECT_EQ(errno, ENOENT);
    fs::remove(trash_);
}

TEST_F(Trash, TakeFromAnotherFileSystemFailsWithEXDEV)
{
    ASSERT_EQ(::mount("tmpfs", area_.c_str(), "tmpfs", 0, "mode=700"), 0);
    const std::string web = tree("web", 1);
    EXPECT_EQ(znc::trash_take(web.c_str()), ERROR);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_TRUE(fs::exists(web));
    ASSERT_EQ(::umount(area_.c_str()), 0);
    fs::remove(trash_);
}

TEST_F(Trash, ATreeIsSmallByEntriesDepthAndData)
{
    EXPECT_TRUE(znc::is_small_tree(tree("few", 200).c_str()));
    EXPECT_FALSE(znc::is_small_tree(tree("many", 300).c_str()));
    const std::string large = tree("large", 0);
    const int fd = ::open((large + "/upper/file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::posix_fallocate(fd, 0, 65 * 1024 * 1024), 0);
    ::close(fd);
    EXPECT_FALSE(znc::is_small_tree(large.c_str()));
    std::string deep = tree("deep", 0);
    EXPECT_TRUE(znc::is_small_tree(deep.c_str()));
    std::string path = deep;
    for (int i = 0; i < 20; i++)
        path += "/d";
    fs::create_directories(path);
    EXPECT_FALSE(znc::is_small_tree(deep.c_str()));
    EXPECT_FALSE(znc::is_small_tree((area_ + "/none").c_str()));
}

} // namespace
