// Tests of the file in which a daemon describes itself, and of when that file is trusted.
#include "zarnel/daemon_file.h"

#include "base/owned.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

const std::string kFile = ZN_RUNTIME_DIR "/" ZN_DAEMON_FILE;
const std::string kLock = ZN_RUNTIME_DIR "/" ZN_DAEMON_LOCK;

class DaemonFile : public testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(::mkdir(ZN_RUNTIME_DIR, 0700), 0);
        dir_.reset(::open(ZN_RUNTIME_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        lock_.reset(::open(kLock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        ASSERT_EQ(::flock(lock_.get(), LOCK_EX), 0);
        ASSERT_EQ(znDaemonInfoWrite(dir_.get(), "1.2.3"), OK) << std::strerror(errno);
    }
    void TearDown() override { fs::remove_all(ZN_RUNTIME_DIR); }

    void expect_unknown(int error)
    {
        znDaemonInfo info = {};
        errno = 0;
        EXPECT_EQ(znDaemonInfoRead(&info), ERROR);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(info.pid, 0);
    }
    static std::string text()
    {
        std::ifstream in(kFile);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    static void set_text(const std::string& text) { std::ofstream(kFile) << text; }

    znc::UniqueFd dir_;
    znc::UniqueFd lock_;
};

TEST_F(DaemonFile, IsTrustedWhileTheLockIsHeld)
{
    znDaemonInfo info = {};
    ASSERT_EQ(znDaemonInfoRead(&info), OK) << std::strerror(errno);
    EXPECT_EQ(info.pid, ::getpid());
    EXPECT_STREQ(info.version, "1.2.3");
    ::flock(lock_.get(), LOCK_UN);
    expect_unknown(ESRCH);
    EXPECT_EQ(::flock(lock_.get(), LOCK_EX | LOCK_NB), 0) << "reading keeps no lock";
    fs::remove(kLock);
    expect_unknown(ESRCH);
}

TEST_F(DaemonFile, OfAnotherProcessOrDamagedIsNotTrusted)
{
    const std::string whole = text();
    const std::string pid = std::to_string(::getpid());
    // up to a position within the version
    for (std::size_t len = 0; len + 6 < whole.size(); len++) {
        set_text(whole.substr(0, len));
        expect_unknown(ESRCH);
    }
    for (const std::string& other :
         {"pid " + pid + "\nstarted 1\nversion 9\n", std::string("pid 1\nstarted 0\nversion 9\n"),
          "pid -1\n" + whole.substr(whole.find("started")), std::string("x")}) {
        set_text(other);
        expect_unknown(ESRCH);
    }
    fs::remove(kFile);
    expect_unknown(ESRCH);
}

TEST_F(DaemonFile, OfAnotherUserOrALinkIsNotTrusted)
{
    ASSERT_EQ(::chown(kFile.c_str(), 1000, 1000), 0);
    expect_unknown(EPERM);
    ASSERT_EQ(::chown(kFile.c_str(), 0, 0), 0);
    ASSERT_EQ(::chmod(kFile.c_str(), 0666), 0);
    expect_unknown(EPERM);
    ASSERT_EQ(::chmod(kFile.c_str(), 0600), 0);
    fs::rename(kFile, ZN_RUNTIME_DIR "/real");
    fs::create_symlink(ZN_RUNTIME_DIR "/real", kFile);
    expect_unknown(ELOOP);
    fs::remove(ZN_RUNTIME_DIR "/real");
    ASSERT_EQ(::chown(ZN_RUNTIME_DIR, 1000, 1000), 0);
    expect_unknown(EPERM);
    ASSERT_EQ(::chown(ZN_RUNTIME_DIR, 0, 0), 0);
}

TEST_F(DaemonFile, FullFileSystemLeavesNoIncompleteFile)
{
    ASSERT_EQ(::mount("tmpfs", ZN_RUNTIME_DIR, "tmpfs", 0, "size=4k"), 0);
    const znc::UniqueFd dir(::open(ZN_RUNTIME_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // the file of a dead daemon, on a file system that is now full
    set_text("pid 1\nstarted 1\nversion 1\n");
    EXPECT_EQ(znDaemonInfoWrite(dir.get(), "1.2.3"), ERROR);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(fs::is_empty(ZN_RUNTIME_DIR));
    EXPECT_EQ(::umount2(ZN_RUNTIME_DIR, MNT_DETACH), 0);
}

} // namespace
