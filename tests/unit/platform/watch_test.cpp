// Tests of waiting for changes in a directory.
#include "zarnel/watch.h"

#include "base/owned.hpp"
#include "tests/support/test_tree.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {

bool is_readable(int watch)
{
    pollfd wanted = {watch, POLLIN, 0};
    return ::poll(&wanted, 1, 0) == 1;
}

} // namespace

TEST(Watch, SeesFilesThatAreMadeWrittenAndRenamed)
{
    const test_tree::TempDir tree;
    const test_tree::TempDir elsewhere;
    const znc::UniqueFd dir(::open(tree.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const znc::UniqueFd watch(znWatchOpen(dir.get()));
    ASSERT_TRUE(watch);
    EXPECT_FALSE(is_readable(watch.get()));
    const znc::UniqueFd file(::openat(dir.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_TRUE(is_readable(watch.get()));
    znWatchClear(watch.get());
    EXPECT_FALSE(is_readable(watch.get()));
    ASSERT_EQ(::write(file.get(), "x", 1), 1);
    EXPECT_TRUE(is_readable(watch.get()));
    znWatchClear(watch.get());
    test_tree::write_file(elsewhere / "other", "text");
    EXPECT_FALSE(is_readable(watch.get()));
    ASSERT_EQ(std::rename((elsewhere / "other").c_str(), (tree / "other").c_str()), 0);
    EXPECT_TRUE(is_readable(watch.get()));
}

TEST(Watch, FollowsADirectoryThatIsRenamed)
{
    const test_tree::TempDir tree;
    ASSERT_EQ(::mkdir((tree / "old").c_str(), 0700), 0);
    const znc::UniqueFd dir(::open((tree / "old").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(std::rename((tree / "old").c_str(), (tree / "new").c_str()), 0);
    const znc::UniqueFd watch(znWatchOpen(dir.get()));
    ASSERT_TRUE(watch);
    test_tree::write_file(tree / "new/file", "text");
    EXPECT_TRUE(is_readable(watch.get()));
}

TEST(Watch, RefusesWhatIsNoDirectory)
{
    const test_tree::TempDir tree;
    test_tree::write_file(tree / "file", "text");
    const znc::UniqueFd file(::open((tree / "file").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(znWatchOpen(file.get()), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(znWatchOpen(-1), -1);
}
