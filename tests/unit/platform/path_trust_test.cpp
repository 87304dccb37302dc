// Tests of the check whether other users can modify a path.
#include "zarnel/path_trust.h"

#include "platform_only.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

constexpr uid_t kStranger = 1000;
constexpr const char* kTop = "/tmp/trust"; // /tmp is sticky and world-writable

class PathTrust : public testing::Test {
  protected:
    void SetUp() override { make(kTop); }
    void TearDown() override { fs::remove_all(kTop); }

    static std::string in_top(const std::string& name) { return std::string(kTop) + "/" + name; }
    static void make(const std::string& path, mode_t mode = 0755, uid_t owner = 0, gid_t group = 0)
    {
        ASSERT_TRUE(::mkdir(path.c_str(), 0700) == 0 || errno == EEXIST);
        ASSERT_EQ(::chown(path.c_str(), owner, group), 0);
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    }
    void expect_trusted(const std::string& path, bool exists = true)
    {
        EXPECT_EQ(znPathTrusted(path.c_str(), &trust_), OK) << path << ": " << trust_.fault;
        EXPECT_EQ(trust_.exists != FALSE, exists) << path;
        EXPECT_STREQ(trust_.fault, "");
    }
    void expect_fault(const std::string& path, const std::string& fault)
    {
        errno = 0;
        EXPECT_EQ(znPathTrusted(path.c_str(), &trust_), ERROR) << path;
        EXPECT_EQ(errno, EPERM) << path;
        EXPECT_EQ(trust_.fault, fault);
    }
    void expect_error(const std::string& path, int error)
    {
        errno = 0;
        EXPECT_EQ(znPathTrusted(path.c_str(), nullptr), ERROR) << path;
        EXPECT_EQ(errno, error) << path;
    }
    znPathTrust trust_ = {};
};

TEST_F(PathTrust, DirectoriesOfRootAloneAreTrustedAlsoBelowAStickyOne)
{
    expect_trusted("/");
    make(in_top("a"));
    make(in_top("a/b"), 0700);
    expect_trusted(in_top("a/b"));
    expect_trusted(in_top("a//./b/"));
    expect_trusted(in_top("a/b/../b"));
    expect_trusted(in_top("a/none/yet"), false);
}

TEST_F(PathTrust, AnotherUsersDirectoryAnywhereOnTheWayIsAFault)
{
    make(in_top("theirs"), 0700, kStranger, kStranger);
    make(in_top("theirs/mine"), 0700);
    const std::string fault = in_top("theirs") + " belongs to another user";
    expect_fault(in_top("theirs"), fault);
    expect_fault(in_top("theirs/mine"), fault);
    expect_fault(in_top("theirs/none"), fault);
}

TEST_F(PathTrust, ADirectoryThatOthersCanWriteIsAFault)
{
    make(in_top("open"), 0777);
    make(in_top("open/mine"), 0700);
    expect_fault(in_top("open/mine"), in_top("open") + " can be written by other users");
    make(in_top("group"), 0775, 0, kStranger);
    expect_fault(in_top("group"), in_top("group") + " can be written by other users");
}

// Only the platform for Linux can tell that a directory has no access control list.
TEST_F(PathTrust, ADirectoryThatTheGroupOfRootCanWriteIsTrustedIfItHasNoAccessControlList)
{
    make(in_top("group"), 0775, 0, 0);
    if (ZNC_TEST_PLATFORM_LINUX)
        expect_trusted(in_top("group"));
    else
        expect_fault(in_top("group"), in_top("group") + " can be written by other users");
}

TEST_F(PathTrust, InAStickyDirectoryOnlyOnesOwnEntriesAreTrusted)
{
    make(in_top("sticky"), 01777);
    make(in_top("sticky/mine"), 0700);
    make(in_top("sticky/theirs"), 0755, kStranger, kStranger);
    expect_trusted(in_top("sticky/mine"));
    expect_fault(in_top("sticky/theirs"), in_top("sticky/theirs") + " belongs to another user");
    expect_fault(in_top("sticky"), in_top("sticky") + " can be written by other users");
    expect_trusted(in_top("sticky/none"), false);
}

TEST_F(PathTrust, LinksAreCheckedByTheirDirectoryAndTheirTarget)
{
    make(in_top("good"), 0700);
    make(in_top("open"), 0777);
    make(in_top("sticky"), 01777);
    fs::create_directory_symlink(in_top("good"), in_top("absolute"));
    fs::create_directory_symlink("good", in_top("relative"));
    fs::create_directory_symlink(in_top("open"), in_top("bad"));
    fs::create_directory_symlink(in_top("good"), in_top("open/link"));
    fs::create_directory_symlink(in_top("good"), in_top("sticky/theirs"));
    ASSERT_EQ(::lchown(in_top("sticky/theirs").c_str(), kStranger, kStranger), 0);
    fs::create_directory_symlink(in_top("good"), in_top("sticky/mine"));
    fs::create_directory_symlink(in_top("nowhere/x"), in_top("dangling"));
    expect_trusted(in_top("absolute"));
    expect_trusted(in_top("relative/none"), false);
    expect_trusted(in_top("sticky/mine"));
    expect_trusted(in_top("dangling"), false);
    expect_fault(in_top("bad"), in_top("open") + " can be written by other users");
    expect_fault(in_top("open/link"), in_top("open") + " can be written by other users");
    expect_fault(in_top("sticky/theirs/x"), in_top("sticky/theirs") + " belongs to another user");
}

TEST_F(PathTrust, LoopsNonDirectoriesAndLongNamesFailWithTheirErrors)
{
    fs::create_symlink("loop", in_top("loop"));
    expect_error(in_top("loop"), ELOOP);
    std::ofstream(in_top("file")) << "x";
    expect_error(in_top("file/below"), ENOTDIR);
    expect_error("", EINVAL);
    expect_error("/" + std::string(300, 'n'), ENAMETOOLONG);
    expect_error("/" + std::string(9000, '/') + "x", ENAMETOOLONG);
}

TEST_F(PathTrust, AFileAtTheEndIsCheckedLikeADirectory)
{
    std::ofstream(in_top("file")) << "x";
    ASSERT_EQ(::chmod(in_top("file").c_str(), 0644), 0);
    expect_trusted(in_top("file"));
    ASSERT_EQ(::chmod(in_top("file").c_str(), 0646), 0);
    expect_fault(in_top("file"), in_top("file") + " can be written by other users");
}

TEST_F(PathTrust, ARelativePathIsCheckedWithItsWorkingDirectory)
{
    make(in_top("open"), 0777);
    make(in_top("open/mine"), 0700);
    const fs::path before = fs::current_path();
    fs::current_path(in_top("open"));
    expect_fault("mine", in_top("open") + " can be written by other users");
    fs::current_path(kTop);
    make(in_top("good"), 0700);
    expect_trusted("good");
    fs::current_path(before);
}

// A directory of root's group, with an ACL that lets another user write.
TEST_F(PathTrust, AnAccessListThatGoesBeyondTheGroupIsAFault)
{
    make(in_top("listed"), 0775);
    struct Entry {
        std::uint16_t tag, permissions;
        std::uint32_t id;
    };
    const struct {
        std::uint32_t version;
        Entry entries[5];
    } list = {2, {{1, 7, ~0U}, {2, 7, kStranger}, {4, 5, ~0U}, {16, 7, ~0U}, {32, 5, ~0U}}};
    if (::setxattr(in_top("listed").c_str(), "system.posix_acl_access", &list, sizeof list, 0) != 0)
        GTEST_SKIP() << "no access lists on this file system: " << std::strerror(errno);
    expect_fault(in_top("listed"), in_top("listed") + " can be written by other users");
}

TEST_F(PathTrust, ForAnotherUserItsOwnAndRootsDirectoriesAreTrusted)
{
    make(in_top("theirs"), 0755, kStranger, kStranger);
    make(in_top("others"), 0755, kStranger + 1, kStranger + 1);
    const pid_t child = ::fork();
    if (child == 0) {
        if (::setgid(kStranger) != 0 || ::setuid(kStranger) != 0)
            ::_exit(1);
        if (znPathTrusted(in_top("theirs").c_str(), nullptr) != OK)
            ::_exit(2);
        ::_exit(znPathTrusted(in_top("others").c_str(), nullptr) == ERROR && errno == EPERM ? 0
                                                                                            : 3);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

// In a user namespace with one user: itself as root. Directories of the host's root and of all
// other users look alike there.
class PathTrustUnmapped : public PathTrust {
  protected:
    void SetUp() override
    {
        // Not below /tmp, which is sticky.
        for (const char* path : {"/trust", "/trust/mine"})
            fs::create_directories(path);
        own("/trust/mine", kStranger);
        fs::create_directories("/trust/theirs");
        fs::create_directory_symlink("/trust/mine", "/trust/link");
        PathTrust::SetUp();
        make(in_top("mine"), 0755, kStranger, kStranger);
    }
    void TearDown() override
    {
        fs::remove_all("/trust");
        PathTrust::TearDown();
    }
    static void own(const char* path, uid_t owner) { ASSERT_EQ(::chown(path, owner, owner), 0); }

    // The result of the check in the namespace: "" or the fault.
    static std::string check_inside(const std::string& path)
    {
        int ready[2];
        int said[2];
        EXPECT_EQ(::pipe(ready), 0);
        EXPECT_EQ(::pipe(said), 0);
        // Not unshare(): with ThreadSanitizer the child of fork() has a second thread.
        const auto child =
            static_cast<pid_t>(::syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, 0, 0, 0, 0));
        if (child == 0) {
            char go = 0;
            znPathTrust trust = {};
            if (::write(said[1], "r", 1) != 1 || ::read(ready[0], &go, 1) != 1 ||
                ::setgid(0) != 0 || ::setuid(0) != 0)
                ::_exit(1);
            const bool isTrusted = znPathTrusted(path.c_str(), &trust) == OK;
            const std::string text = isTrusted ? "trusted" : trust.fault;
            ::_exit(::write(said[1], text.data(), text.size()) > 0 ? 0 : 2);
        }
        ::close(said[1]);
        char text[1200] = "";
        EXPECT_EQ(::read(said[0], text, 1), 1);
        const std::string map = "0 " + std::to_string(kStranger) + " 1\n";
        for (const char* file : {"uid_map", "gid_map"})
            std::ofstream("/proc/" + std::to_string(child) + "/" + file) << map << std::flush;
        EXPECT_EQ(::write(ready[1], "g", 1), 1);
        const ssize_t len = ::read(said[0], text, sizeof text - 1);
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        for (const int fd : {ready[0], ready[1], said[0]})
            ::close(fd);
        return {text, static_cast<std::size_t>(std::max<ssize_t>(len, 0))};
    }
};

TEST_F(PathTrustUnmapped, DirectoriesOfUsersThatAreNotMappedMayBeAboveOnesOwn)
{
    LINUX_ONLY("no user namespaces");
    EXPECT_EQ(check_inside("/trust/mine"), "trusted");
    EXPECT_EQ(check_inside(in_top("mine")), std::string(kTop) + " belongs to another user");
    ASSERT_EQ(::chmod("/trust", 0757), 0);
    EXPECT_EQ(check_inside("/trust/mine"), "/trust can be written by other users");
    ASSERT_EQ(::chmod("/trust", 0775), 0);
    EXPECT_EQ(check_inside("/trust/mine"), "/trust can be written by other users");
}

TEST_F(PathTrustUnmapped, TheEndOfAPathMustBelongToAMappedUser)
{
    LINUX_ONLY("no user namespaces");
    EXPECT_EQ(check_inside("/trust/theirs"), "/trust/theirs belongs to a user that is not mapped");
    EXPECT_EQ(check_inside("/trust"), "/trust belongs to a user that is not mapped");
    std::ofstream("/trust/file") << "text";
    EXPECT_EQ(check_inside("/trust/file"), "/trust/file belongs to another user");
}

TEST_F(PathTrustUnmapped, SymbolicLinksOfUsersThatAreNotMappedAreFaults)
{
    LINUX_ONLY("no user namespaces");
    EXPECT_EQ(check_inside("/trust/link"),
              "/trust/link is a symbolic link of a user that is not mapped");
    ASSERT_EQ(::lchown("/trust/link", kStranger, kStranger), 0);
    EXPECT_EQ(check_inside("/trust/link"), "trusted");
}

// The overflow id is an id like any other where all are mapped.
TEST_F(PathTrustUnmapped, OutsideUserNamespacesTheOverflowIdIsAnotherUser)
{
    own("/trust/theirs", 65534);
    fs::create_directories("/trust/theirs/mine");
    expect_fault("/trust/theirs/mine", "/trust/theirs belongs to another user");
}

} // namespace
