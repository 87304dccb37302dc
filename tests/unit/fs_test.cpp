#include "zarnel/fs.h"

#include "test_tree.hpp"
#include "zarnel/owned.hpp"

#include <cstring>
#include <fcntl.h>

#include <gtest/gtest.h>

using test_tree::TempDir;
using test_tree::Umask;

namespace {

TEST(EnvGet, CopiesTheValueAndGivesItsLength)
{
    setenv("ZN_TEST", "value", 1);
    char buf[6];
    EXPECT_EQ(znEnvGet("ZN_TEST", buf, sizeof buf), 5);
    EXPECT_STREQ(buf, "value");
    setenv("ZN_TEST", "", 1);
    EXPECT_EQ(znEnvGet("ZN_TEST", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "");
}

TEST(EnvGet, UnsetOrTooLongLeavesBufferAndErrnoAlone)
{
    setenv("ZN_TEST", "value", 1);
    char buf[5] = "keep";
    errno = 7;
    EXPECT_EQ(znEnvGet("ZN_TEST", buf, sizeof buf), -1);
    unsetenv("ZN_TEST");
    EXPECT_EQ(znEnvGet("ZN_TEST", buf, sizeof buf), -1);
    EXPECT_STREQ(buf, "keep");
    EXPECT_EQ(errno, 7);
}

std::string appended(const std::string& text, const char* component, size_t room, bool* fitted)
{
    std::vector<char> buf(room, 'X');
    strcpy(buf.data(), text.c_str());
    const char* end = znPathAppend(buf.data(), room, component);
    *fitted = end != buf.data() + room;
    if (*fitted) {
        EXPECT_EQ(*end, '\0');
        EXPECT_EQ(end, buf.data() + strlen(buf.data()));
    }
    return buf.data();
}

TEST(PathAppend, JoinsWithExactlyOneSlash)
{
    bool fitted;
    EXPECT_EQ(appended("/a", "b", 64, &fitted), "/a/b");
    EXPECT_EQ(appended("/a/", "b", 64, &fitted), "/a/b");
    EXPECT_EQ(appended("/a", "/b", 64, &fitted), "/a/b");
    EXPECT_EQ(appended("/a//", "//b/", 64, &fitted), "/a/b/");
    EXPECT_EQ(appended("/", "b", 64, &fitted), "/b");
    EXPECT_EQ(appended("/", "/", 64, &fitted), "/");
    EXPECT_EQ(appended("a", "/", 64, &fitted), "a/");
    EXPECT_EQ(appended("a", "", 64, &fitted), "a");
}

TEST(PathAppend, EmptyBufferTakesTheComponentAsItIs)
{
    bool fitted;
    EXPECT_EQ(appended("", "b", 64, &fitted), "b");
    EXPECT_EQ(appended("", "//b//", 64, &fitted), "//b//");
    EXPECT_EQ(appended("", "", 64, &fitted), "");
    EXPECT_TRUE(fitted);
}

TEST(PathAppend, WhatDoesNotFitIsCutAndGivesTheBuffersEnd)
{
    bool fitted;
    EXPECT_EQ(appended("/a", "b", 5, &fitted), "/a/b");
    EXPECT_TRUE(fitted);
    EXPECT_EQ(appended("/a", "bc", 5, &fitted), "/a/b");
    EXPECT_FALSE(fitted);
    EXPECT_EQ(appended("/abc", "d", 5, &fitted), "/abc");
    EXPECT_FALSE(fitted);
    EXPECT_EQ(appended("/ab", "d", 5, &fitted), "/ab/");
    EXPECT_FALSE(fitted);
    EXPECT_EQ(appended("", "abcde", 5, &fitted), "abcd");
    EXPECT_FALSE(fitted);
}

TEST(MkdirParents, MakesEveryMissingParentWithTheModeWhateverTheUmask)
{
    const TempDir dir;
    const Umask mask(0777);
    EXPECT_EQ(znMkdirParents((dir / "a/b//c/").c_str(), 0750), OK);
    EXPECT_EQ(test_tree::mode_of(dir / "a"), 0750u);
    EXPECT_EQ(test_tree::mode_of(dir / "a/b"), 0750u);
    EXPECT_EQ(test_tree::mode_of(dir / "a/b/c"), 0750u);
}

TEST(MkdirParents, AnExistingDirectoryIsSuccessAndKeepsItsMode)
{
    const TempDir dir;
    ASSERT_EQ(mkdir((dir / "a").c_str(), 0700), 0);
    EXPECT_EQ(znMkdirParents((dir / "a").c_str(), 0755), OK);
    EXPECT_EQ(znMkdirParents((dir / "a/b").c_str(), 0755), OK);
    EXPECT_EQ(test_tree::mode_of(dir / "a"), 0700u);
    EXPECT_EQ(znMkdirParents("/", 0700), OK);
    EXPECT_EQ(znMkdirParents("///", 0700), OK);
}

TEST(MkdirParents, ALinkToADirectoryServesAsOne)
{
    const TempDir dir;
    ASSERT_EQ(mkdir((dir / "real").c_str(), 0700), 0);
    ASSERT_EQ(symlink("real", (dir / "link").c_str()), 0);
    EXPECT_EQ(znMkdirParents((dir / "link").c_str(), 0700), OK);
    EXPECT_EQ(znMkdirParents((dir / "link/x/y").c_str(), 0700), OK);
    EXPECT_TRUE(test_tree::exists(dir / "real/x/y"));
}

TEST(MkdirParents, AFileInTheWayFailsWithENOTDIR)
{
    const TempDir dir;
    test_tree::write_file(dir / "file", "");
    for (const char* path : {"file", "file/x", "file/x/y"}) {
        errno = 0;
        EXPECT_EQ(znMkdirParents((dir / path).c_str(), 0700), ERROR) << path;
        EXPECT_EQ(errno, ENOTDIR) << path;
    }
}

TEST(MkdirParents, AnEmptyPathFailsWithENOENTAndALongOneWithENAMETOOLONG)
{
    errno = 0;
    EXPECT_EQ(znMkdirParents("", 0700), ERROR);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(znMkdirParents(std::string(5000, 'a').c_str(), 0700), ERROR);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(FileCreate, NewFileHasExactlyTheModeWhateverTheUmask)
{
    const TempDir dir;
    const Umask mask(0777);
    const znc::UniqueFd fd(znFileCreate((dir / "f").c_str(), 0664));
    ASSERT_TRUE(fd);
    EXPECT_EQ(test_tree::mode_of(dir / "f"), 0664u);
    EXPECT_NE(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(fcntl(fd.get(), F_GETFL) & O_ACCMODE, O_RDWR);
}

TEST(FileCreate, ExistingFileIsEmptiedAndGetsTheMode)
{
    const TempDir dir;
    test_tree::write_file(dir / "f", "old content");
    ASSERT_EQ(chmod((dir / "f").c_str(), 0600), 0);
    const znc::UniqueFd fd(znFileCreate((dir / "f").c_str(), 0444));
    ASSERT_TRUE(fd);
    EXPECT_EQ(write(fd.get(), "new", 3), 3);
    EXPECT_EQ(test_tree::read_file(dir / "f"), "new");
    EXPECT_EQ(test_tree::mode_of(dir / "f"), 0444u);
}

TEST(FileCreate, ALinkIsReplacedAndItsTargetUntouched)
{
    const TempDir dir;
    test_tree::write_file(dir / "target", "precious");
    ASSERT_EQ(symlink("target", (dir / "f").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (dir / "dangling").c_str()), 0);
    for (const char* name : {"f", "dangling"}) {
        const znc::UniqueFd fd(znFileCreate((dir / name).c_str(), 0644));
        ASSERT_TRUE(fd) << name;
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(dir / name)));
    }
    EXPECT_EQ(test_tree::read_file(dir / "target"), "precious");
    EXPECT_FALSE(test_tree::exists(dir / "nowhere"));
}

TEST(FileCreate, ADirectoryFailsWithEISDIRAndAFifoWithEEXISTWithoutBlocking)
{
    const TempDir dir;
    ASSERT_EQ(mkdir((dir / "d").c_str(), 0700), 0);
    ASSERT_EQ(mkfifo((dir / "p").c_str(), 0600), 0);
    errno = 0;
    EXPECT_EQ(znFileCreate((dir / "d").c_str(), 0644), -1);
    EXPECT_EQ(errno, EISDIR);
    errno = 0;
    EXPECT_EQ(znFileCreate((dir / "p").c_str(), 0644), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_TRUE(test_tree::exists(dir / "p"));
}

TEST(FileCreate, AMissingParentFailsWithENOENT)
{
    const TempDir dir;
    errno = 0;
    EXPECT_EQ(znFileCreate((dir / "no/f").c_str(), 0644), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(ErrorText, IsTheSystemsCutToTheBufferAndKeepsErrno)
{
    char text[64];
    errno = 7;
    znErrorText(EPERM, text, sizeof text);
    EXPECT_STREQ(text, strerror(EPERM));
    znErrorText(0xdf001c, text, sizeof text);
    EXPECT_STREQ(text, strerror(0xdf001c));
    char cut[5];
    znErrorText(EPERM, cut, sizeof cut);
    EXPECT_EQ(std::string(cut), std::string(strerror(EPERM)).substr(0, 4));
    EXPECT_EQ(errno, 7);
}

} // namespace
