#include "zarnel/fs.h"

#include "platform_only.hpp"

#include "base/owned.hpp"
#include "test_tree.hpp"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <thread>

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

TEST(PathAppend, TextThatDoesNotFitIsTruncatedAndTheBuffersEndReturned)
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

// A directory held open, and a directory next to it that must not be reached.
class At : public testing::Test {
  protected:
    At()
    {
        for (const char* name : {"in", "out"})
            EXPECT_EQ(mkdir((dir_ / name).c_str(), 0755), 0);
        test_tree::write_file(dir_ / "out/secret", "precious");
        in_.reset(znDirOpenAt(AT_FDCWD, (dir_ / "in").c_str()));
        EXPECT_TRUE(in_);
    }
    void TearDown() override
    {
        EXPECT_EQ(test_tree::read_file(dir_ / "out/secret"), "precious");
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_ / "out"), {}), 1);
    }
    [[nodiscard]] int create(const char* name, mode_t mode = 0644) const
    {
        errno = 0;
        return znFileCreateAt(in_.get(), name, mode);
    }
    [[nodiscard]] int open_dir(const char* name) const
    {
        errno = 0;
        return znDirOpenAt(in_.get(), name);
    }

    TempDir dir_;
    znc::UniqueFd in_;
};

using FileCreateAt = At;
using DirOpenAt = At;

TEST_F(FileCreateAt, MakesAFileInTheDirectoryWithExactlyTheMode)
{
    const Umask mask(0777);
    const znc::UniqueFd fd(create("f", 0664));
    ASSERT_TRUE(fd);
    EXPECT_EQ(write(fd.get(), "new", 3), 3);
    EXPECT_EQ(lseek(fd.get(), 0, SEEK_SET), 0);
    char text[4] = {};
    EXPECT_EQ(read(fd.get(), text, sizeof text), 3);
    EXPECT_STREQ(text, "new");
    EXPECT_EQ(test_tree::mode_of(dir_ / "in/f"), 0664u);
    EXPECT_NE(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(FileCreateAt, StaysInTheDirectoryWhenThatIsMovedAndALinkTakesItsPlace)
{
    ASSERT_EQ(rename((dir_ / "in").c_str(), (dir_ / "moved").c_str()), 0);
    ASSERT_EQ(symlink("out", (dir_ / "in").c_str()), 0);
    EXPECT_TRUE(znc::UniqueFd(create("secret")));
    EXPECT_EQ(test_tree::read_file(dir_ / "moved/secret"), "");
}

TEST_F(FileCreateAt, ExistingFileIsEmptiedAndGetsTheMode)
{
    test_tree::write_file(dir_ / "in/f", "old content");
    EXPECT_TRUE(znc::UniqueFd(create("f", 0400)));
    EXPECT_EQ(test_tree::read_file(dir_ / "in/f"), "");
    EXPECT_EQ(test_tree::mode_of(dir_ / "in/f"), 0400u);
}

TEST_F(FileCreateAt, ALinkIsReplacedWhereverItLeads)
{
    for (const char* where : {"../out/secret", "../out", "../out/new", "f", "."}) {
        unlink((dir_ / "in/f").c_str());
        ASSERT_EQ(symlink(where, (dir_ / "in/f").c_str()), 0);
        const znc::UniqueFd fd(create("f"));
        ASSERT_TRUE(fd) << where;
        EXPECT_EQ(write(fd.get(), "mine", 4), 4);
        EXPECT_TRUE(
            std::filesystem::is_regular_file(std::filesystem::symlink_status(dir_ / "in/f")));
        EXPECT_EQ(test_tree::read_file(dir_ / "in/f"), "mine");
    }
}

TEST_F(FileCreateAt, OtherFileTypesAreNeitherOpenedNorReplaced)
{
    ASSERT_EQ(mkdirat(in_.get(), "d", 0700), 0);
    ASSERT_EQ(mkfifoat(in_.get(), "p", 0600), 0);
    for (const char* name : {"d", ".", "..", "d/"}) {
        EXPECT_EQ(create(name), -1) << name;
        EXPECT_EQ(errno, EISDIR) << name;
    }
    EXPECT_EQ(create("p"), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_TRUE(test_tree::exists(dir_ / "in/p"));
}

TEST_F(FileCreateAt, FailsWithTheReasonAndLeavesNothing)
{
    EXPECT_EQ(create("no/f"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(create(""), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(create(std::string(256, 'n').c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(znFileCreateAt(-1, "f", 0644), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(std::filesystem::is_empty(dir_ / "in"));
}

// A file and a link to the secret are exchanged continuously: writes must only ever reach the file
// in the directory.
TEST_F(FileCreateAt, NameThatChangesDuringTheCallLeadsNowhereElse)
{
    test_tree::write_file(dir_ / "in/f", "");
    ASSERT_EQ(symlink("../out/secret", (dir_ / "in/l").c_str()), 0);
    std::atomic<bool> stop = false;
    std::thread flipper([&] {
        while (!stop) {
            renameat2(in_.get(), "f", in_.get(), "l", RENAME_EXCHANGE);
            unlinkat(in_.get(), "new", 0);
            if (symlinkat("../out/secret", in_.get(), "new") == 0)
                renameat(in_.get(), "new", in_.get(), "l");
        }
    });
    for (int n = 0; n < 20000; ++n) {
        const znc::UniqueFd fd(create("f"));
        if (fd) {
            EXPECT_EQ(write(fd.get(), "x", 1), 1);
        } else {
            EXPECT_TRUE(errno == EEXIST || errno == ELOOP || errno == ENOENT) << errno;
        }
    }
    stop = true;
    flipper.join();
}

TEST_F(DirOpenAt, ReturnsACloseOnExecDescriptorForTheAtCalls)
{
    ASSERT_EQ(mkdirat(in_.get(), "d", 0700), 0);
    const znc::UniqueFd dir(open_dir("d"));
    ASSERT_TRUE(dir);
    EXPECT_NE(fcntl(dir.get(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(mkdirat(dir.get(), "below", 0700), 0);
    EXPECT_TRUE(test_tree::exists(dir_ / "in/d/below"));
    EXPECT_TRUE(znc::UniqueFd(open_dir(".")));
}

TEST_F(DirOpenAt, ALinkIsNoDirectoryWhereverItLeads)
{
    ASSERT_EQ(mkdirat(in_.get(), "d", 0700), 0);
    for (const char* where : {"d", ".", "../out", "/", "nowhere", "l"}) {
        unlinkat(in_.get(), "l", 0);
        ASSERT_EQ(symlinkat(where, in_.get(), "l"), 0);
        EXPECT_EQ(open_dir("l"), -1) << where;
        EXPECT_EQ(errno, ENOTDIR) << where;
    }
}

TEST_F(DirOpenAt, OtherFileTypesFailWithENOTDIRWithoutBlocking)
{
    test_tree::write_file(dir_ / "in/f", "");
    ASSERT_EQ(mkfifoat(in_.get(), "p", 0600), 0);
    for (const char* name : {"f", "p"}) {
        EXPECT_EQ(open_dir(name), -1) << name;
        EXPECT_EQ(errno, ENOTDIR) << name;
    }
}

TEST_F(DirOpenAt, FailsWithTheReason)
{
    EXPECT_EQ(open_dir("missing"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(open_dir(""), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(open_dir(std::string(256, 'n').c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(znDirOpenAt(-1, "d"), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(DirOpenAt, SearchPermissionIsEnough)
{
    LINUX_ONLY("the C library may lack O_SEARCH");
    constexpr uid_t kNobody = 65534;
    ASSERT_EQ(mkdirat(in_.get(), "d", 0711), 0);
    ASSERT_EQ(fchmodat(in_.get(), "d", 0711, 0), 0);
    ASSERT_EQ(mkdir((dir_ / "in/d/below").c_str(), 0711), 0);
    ASSERT_EQ(seteuid(kNobody), 0);
    const znc::UniqueFd dir(open_dir("d"));
    const znc::UniqueFd below(znDirOpenAt(dir.get(), "below"));
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_TRUE(dir);
    EXPECT_TRUE(below);
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

TEST(DirExchange, BothDirectoriesChangeNamesInOneStep)
{
    const TempDir dir;
    std::filesystem::create_directories(dir / "a/of-a");
    std::filesystem::create_directories(dir / "b/of-b");
    EXPECT_EQ(znDirExchange((dir / "a").c_str(), (dir / "b").c_str()), OK);
    EXPECT_TRUE(test_tree::exists(dir / "a/of-b"));
    EXPECT_TRUE(test_tree::exists(dir / "b/of-a"));
}

TEST(DirExchange, ReadersAlwaysFindACompleteTree)
{
    LINUX_ONLY("two names cannot be exchanged in one step");
    const TempDir dir;
    for (const char* tree : {"a", "b"})
        std::filesystem::create_directories(dir / tree + std::string("/x/y"));
    std::atomic<bool> end = false;
    std::thread other([&] {
        while (!end)
            znDirExchange((dir / "a").c_str(), (dir / "b").c_str());
    });
    for (int i = 0; i < 5000; i++)
        ASSERT_TRUE(test_tree::exists(dir / "b/x/y")) << i;
    end = true;
    other.join();
}

TEST(DirExchange, NothingChangesIfOneDirectoryIsMissing)
{
    const TempDir dir;
    std::filesystem::create_directories(dir / "a/of-a");
    EXPECT_EQ(znDirExchange((dir / "a").c_str(), (dir / "none").c_str()), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(znDirExchange((dir / "none").c_str(), (dir / "a").c_str()), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(test_tree::exists(dir / "a/of-a"));
}

TEST(Sync, ADirectoryIsNeeded)
{
    const TempDir dir;
    test_tree::write_file(dir / "file", "x");
    EXPECT_EQ(znFsSync(dir.path().c_str()), OK);
    EXPECT_EQ(znDirSync(dir.path().c_str()), OK);
    for (const auto& [path, error] :
         {std::pair(dir / "file", ENOTDIR), std::pair(dir / "none", ENOENT)}) {
        EXPECT_EQ(znFsSync(path.c_str()), ERROR);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(znDirSync(path.c_str()), ERROR);
        EXPECT_EQ(errno, error);
    }
}
