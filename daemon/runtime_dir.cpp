#include "runtime_dir.hpp"

#include "log.hpp"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>

#include "zarnel/fs.h"

namespace zncd {
namespace {

constexpr const char* kLockName = "zncd.lock";

// Nobody else's directory, and no link to one, may stand in for it.
znc::UniqueFd open_runtime_dir()
{
    if (::mkdir(kRuntimeDir, 0700) != 0 && errno != EEXIST)
        return {};
    znc::UniqueFd dir(::open(kRuntimeDir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st = {};
    if (!dir || ::fstat(dir.get(), &st) != 0)
        return {};
    if (st.st_uid != ::geteuid()) {
        errno = EPERM;
        return {};
    }
    if (::fchmod(dir.get(), 0700) != 0)
        return {};
    return dir;
}

void name_holder(int lock)
{
    std::array<char, 32> text{};
    const ssize_t len = ::pread(lock, text.data(), text.size() - 1, 0);
    const long pid = len > 0 ? std::strtol(text.data(), nullptr, 10) : 0;
    if (pid > 0)
        log(Level::kError, "a daemon is running already, process %ld", pid);
    else
        log(Level::kError, "a daemon is running already");
}

bool write_own_pid(int lock)
{
    const std::string text = std::to_string(::getpid()) + "\n";
    return ::ftruncate(lock, 0) == 0 &&
           ::pwrite(lock, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

} // namespace

znc::UniqueFd take_lock()
{
    const znc::UniqueFd dir = open_runtime_dir();
    if (!dir) {
        log_errno(kRuntimeDir);
        return {};
    }
    // The file stays when the daemon ends: removing it would let two daemons lock two files.
    znc::UniqueFd lock(
        ::openat(dir.get(), kLockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock) {
        log_errno(kLockName);
        return {};
    }
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK)
            name_holder(lock.get());
        else
            log_errno(kLockName);
        return {};
    }
    if (!write_own_pid(lock.get())) {
        log_errno(kLockName);
        return {};
    }
    return lock;
}

} // namespace zncd
