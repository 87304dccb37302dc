// zncStoreLock.cpp - see zncStoreLock.hpp.
#include "zncStoreLock.hpp"

#include "base/failure.hpp"
#include "zarnel/fs.h"
#include "zncLayerStage.hpp"

#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr char kLockName[] = "/.lock";
constexpr int kBaseTries = 8; // retries if a failing unpack removes the base directory
// times kWaitNs: 10 s; the lock is held exclusively for a few renames only
constexpr int kWaits = 1000;
constexpr long kWaitNs = 10'000'000;

bool lock_set(int fd, short type)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return ::fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

} // namespace

namespace znc {

// The last holder removes the lock file. Every holder gives up its shared lock before it tries to
// get the exclusive one: if two that still held it left at the same time, neither would get the
// exclusive lock and the file would stay. Between the two steps another process may have removed
// the file, and a new lock file may have been created under its name; the link count shows that.
void StoreLock::release() noexcept
{
    const ErrnoSaver keep;
    struct stat st = {};
    if (fd_ && lock_set(fd_.get(), F_UNLCK) && lock_set(fd_.get(), F_WRLCK) &&
        ::fstat(fd_.get(), &st) == 0 && st.st_nlink != 0)
        ::unlink(path_.get());
    fd_.reset();
}

STATUS StoreLock::share() noexcept
{
    exclusive_ = false;
    return lock_set(fd_.get(), F_RDLCK) ? OK : ERROR;
}

// Waits with a limit: a process stopped while it holds the lock must not block the others for ever.
STATUS StoreLock::wait_shared(int fd) noexcept
{
    for (int n = 0; !lock_set(fd, F_RDLCK); ++n) {
        if (errno != EAGAIN && errno != EACCES && errno != EINTR)
            return ERROR;
        if (n == kWaits)
            return znc::fail(EBUSY);
        const timespec pause = {0, kWaitNs};
        ::nanosleep(&pause, nullptr);
    }
    return OK;
}

// Opens and locks the lock file. If the file was removed while this waited for the lock, starts
// again with the new one. Only a holder of the exclusive lock removes the file, so that a file that
// is still linked once locked stays linked.
STATUS StoreLock::open_locked(Want want)
{
    for (;;) {
        UniqueFd fd(::open(path_.get(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!fd)
            return ERROR;
        exclusive_ = lock_set(fd.get(), F_WRLCK);
        if (!exclusive_ && want == Want::kExclusive)
            return znc::fail(errno == EAGAIN || errno == EACCES ? EBUSY : errno);
        struct stat st = {};
        if ((!exclusive_ && wait_shared(fd.get()) != OK) || ::fstat(fd.get(), &st) != 0)
            return ERROR;
        if (st.st_nlink == 0)
            continue;
        fd_ = std::move(fd);
        return OK;
    }
}

// A failing unpack removes a base directory that it created, if it is empty. If that happens
// between the mkdir and the open here, both are repeated.
STATUS StoreLock::make_and_open(std::string_view base)
{
    const PathText dir = path_in(base, "");
    for (int n = 0; dir && n < kBaseTries; ++n) {
        if (znMkdirParents(dir.get(), 0700) != OK)
            return ERROR;
        if (open_locked(Want::kShared) == OK)
            return OK;
        if (errno != ENOENT)
            return ERROR;
    }
    return ERROR;
}

STATUS StoreLock::take(std::string_view base)
{
    if (fd_)
        return OK;
    path_ = path_in(base, kLockName);
    if (!path_ || make_and_open(base) != OK)
        return ERROR;
    if (!exclusive_)
        return OK;
    // Leftovers can be recognised only while no other process has the lock. They are deleted after
    // the lock is shared again.
    TextList leftovers;
    const bool found = find_leftovers(base, &leftovers) == OK;
    if (share() != OK)
        return ERROR;
    if (found)
        delete_leftovers(leftovers);
    return OK;
}

STATUS StoreLock::take_alone(std::string_view base)
{
    path_ = path_in(base, kLockName);
    return path_ ? open_locked(Want::kExclusive) : ERROR;
}

} // namespace znc
