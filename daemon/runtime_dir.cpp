#include "runtime_dir.hpp"

#include "base/failure.hpp"
#include "log.hpp"

#include <array>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>

#include "zarnel/daemon_file.h"
#include "zarnel/fs.h"

namespace zncd {
namespace {

constexpr const char* kLockName = ZN_DAEMON_LOCK;
constexpr int kLockTries = 50;
constexpr long kLockPauseNs = 2000000;

// Refuses a directory of another user, and a symbolic link.
znc::UniqueFd open_runtime_dir()
{
    if (::mkdir(ZN_RUNTIME_DIR, 0700) != 0 && errno != EEXIST)
        return {};
    znc::UniqueFd dir(::open(ZN_RUNTIME_DIR, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st = {};
    if (!dir || ::fstat(dir.get(), &st) != 0)
        return {};
    if (st.st_uid != ::geteuid())
        return znc::fail(EPERM, znc::UniqueFd());
    if (::fchmod(dir.get(), 0700) != 0)
        return {};
    return dir;
}

void log_lock_holder(int lock)
{
    std::array<char, 32> text{};
    const ssize_t len = ::pread(lock, text.data(), text.size() - 1, 0);
    const long pid = len > 0 ? std::strtol(text.data(), nullptr, 10) : 0;
    if (pid > 0)
        log(Level::kError, "a daemon is running already, process %ld", pid);
    else
        log(Level::kError, "a daemon is running already");
}

// Opens the lock file. If the file system is full, the directory is locked instead: the daemon must
// start even then, to delete containers.
znc::UniqueFd open_lock(znc::UniqueFd& dir)
{
    // The file is not removed when the daemon ends: otherwise two daemons could lock two different
    // files.
    znc::UniqueFd lock(
        ::openat(dir.get(), kLockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (lock || errno != ENOSPC)
        return lock;
    log(Level::kWarning,
        "%s is full: no lock file; containers cannot be created until there is room",
        ZN_RUNTIME_DIR);
    return std::move(dir);
}

// Retries, because programs that check the lock (znDaemonInfoRead) hold it for a moment.
bool lock_within_tries(int fd)
{
    for (int n = 0; ::flock(fd, LOCK_EX | LOCK_NB) != 0; n++) {
        if (errno != EINTR && (errno != EWOULDBLOCK || n == kLockTries))
            return false;
        const timespec pause = {0, kLockPauseNs};
        ::nanosleep(&pause, nullptr);
    }
    return true;
}

// Records process id and version for users and other programs. Failures are logged only.
void write_identity(int dir, int lock, const char* version)
{
    const std::string text = std::to_string(::getpid()) + "\n";
    if (::ftruncate(lock, 0) != 0 ||
        ::pwrite(lock, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        static_cast<void>(::ftruncate(lock, 0) == 0); // leave no partial number
        log(Level::kWarning, "cannot write %s/%s: the file system is full", ZN_RUNTIME_DIR,
            kLockName);
    }
    if (znDaemonInfoWrite(dir, version) != OK) {
        std::array<char, 256> reason{};
        znErrorText(errno, reason.data(), reason.size());
        log(Level::kWarning, "cannot write %s/%s: %s", ZN_RUNTIME_DIR, ZN_DAEMON_FILE,
            reason.data());
    }
}

} // namespace

znc::UniqueFd take_lock(const char* version)
{
    znc::UniqueFd dir = open_runtime_dir();
    if (!dir) {
        log_errno(ZN_RUNTIME_DIR);
        return {};
    }
    znc::UniqueFd lock = open_lock(dir);
    if (!lock) {
        log_errno(kLockName);
        return {};
    }
    if (!lock_within_tries(lock.get())) {
        if (errno == EWOULDBLOCK)
            log_lock_holder(lock.get());
        else
            log_errno(kLockName);
        return {};
    }
    if (dir) // else `lock` is the directory
        write_identity(dir.get(), lock.get(), version);
    return lock;
}

} // namespace zncd
