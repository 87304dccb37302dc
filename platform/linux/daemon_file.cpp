#include "zarnel/daemon_file.h"

#include "base/failure.hpp"
#include "base/owned.hpp"
#include "ns_record.hpp"

#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr char kUnfinished[] = ".zncd.info.new";
constexpr int kReadFlags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

UniqueFd own_file(int dir, const char* name, int flags)
{
    UniqueFd fd(::openat(dir, name, flags | O_CLOEXEC));
    struct stat st;
    if (!fd || ::fstat(fd.get(), &st) != 0)
        return UniqueFd();
    if (st.st_uid == ::geteuid() && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0)
        return fd;
    return znc::fail(EPERM, UniqueFd());
}

// The shared lock taken here for a moment does not prevent a starting daemon from taking its lock:
// the daemon retries.
bool is_locked(int file)
{
    if (::flock(file, LOCK_SH | LOCK_NB) != 0)
        return errno == EWOULDBLOCK;
    ::flock(file, LOCK_UN);
    return false;
}

STATUS write_text(int dir, const char* text, std::size_t len)
{
    const UniqueFd file(
        ::openat(dir, kUnfinished, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file)
        return ERROR;
    const ssize_t n = ::write(file.get(), text, len);
    if (n >= 0 && n != static_cast<ssize_t>(len))
        errno = ENOSPC;
    return n == static_cast<ssize_t>(len) ? OK : ERROR;
}

} // namespace
} // namespace zn

using namespace zn;

STATUS znDaemonInfoWrite(int dirFd, const char* version)
{
    char text[160];
    const int len = std::snprintf(text, sizeof text, "pid %d\nstarted %llu\nversion %.63s\n",
                                  ::getpid(), process_start_time(::getpid()), version);
    if (write_text(dirFd, text, static_cast<std::size_t>(len)) == OK &&
        ::renameat(dirFd, kUnfinished, dirFd, ZN_DAEMON_FILE) == 0)
        return OK;
    const znc::ErrnoSaver keep;
    ::unlinkat(dirFd, kUnfinished, 0);
    ::unlinkat(dirFd, ZN_DAEMON_FILE, 0); // the file of an earlier daemon
    return ERROR;
}

STATUS znDaemonInfoRead(znDaemonInfo* info)
{
    const UniqueFd dir = own_file(AT_FDCWD, ZN_RUNTIME_DIR, kDirFlags);
    const UniqueFd lock = dir ? own_file(dir.get(), ZN_DAEMON_LOCK, kReadFlags) : UniqueFd();
    if (!lock)
        return errno == ENOENT ? znc::fail(ESRCH) : ERROR;
    if (!is_locked(lock.get()))
        return znc::fail(ESRCH);
    const UniqueFd file = own_file(dir.get(), ZN_DAEMON_FILE, kReadFlags);
    char text[160];
    const ssize_t len = file ? ::read(file.get(), text, sizeof text - 1) : -1;
    if (len < 0)
        return errno == ENOENT ? znc::fail(ESRCH) : ERROR;
    text[len] = '\0';
    znDaemonInfo found = {};
    unsigned long long started = 0;
    if (std::sscanf(text, "pid %d\nstarted %llu\nversion %63s", &found.pid, &started,
                    found.version) != 3 ||
        found.pid <= 0 || started == 0 || process_start_time(found.pid) != started)
        return znc::fail(ESRCH);
    *info = found;
    return OK;
}
