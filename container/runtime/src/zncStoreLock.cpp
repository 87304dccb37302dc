// zncStoreLock.cpp - see zncStoreLock.hpp.
#include "zncStoreLock.hpp"

#include "zarnel/fs.h"
#include "zncLayerStage.hpp"

#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr char kLockName[] = "/.lock";
constexpr int kBaseTries = 8; // at a base that another one's failure removes meanwhile
constexpr int kWaits = 1000;  // of kWaitNs: 10 s. It is held exclusively for a few renames only
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

// The last one out takes the file along. Everyone lets go before he tries: of two who leave at once
// and still held it, neither would get it, and it would stay. In between somebody else may have
// removed it, and a new one may have its name.
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
    alone_ = false;
    return lock_set(fd_.get(), F_RDLCK) ? OK : ERROR;
}

// A process that is stopped while it has the lock must not stop the others for ever.
STATUS StoreLock::wait_shared(int fd) noexcept
{
    for (int n = 0; !lock_set(fd, F_RDLCK); ++n) {
        if (errno != EAGAIN && errno != EACCES && errno != EINTR)
            return ERROR;
        if (n == kWaits) {
            errno = EBUSY;
            return ERROR;
        }
        const timespec pause = {0, kWaitNs};
        ::nanosleep(&pause, nullptr);
    }
    return OK;
}

// Locks the file that has the name. One that was removed while it was waited for is let go again:
// a name is removed only by who holds its file exclusively.
STATUS StoreLock::open_locked(Want want)
{
    for (;;) {
        UniqueFd fd(::open(path_.get(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!fd)
            return ERROR;
        alone_ = lock_set(fd.get(), F_WRLCK);
        if (!alone_ && want == Want::kAlone) {
            errno = errno == EAGAIN || errno == EACCES ? EBUSY : errno;
            return ERROR;
        }
        struct stat st = {};
        if ((!alone_ && wait_shared(fd.get()) != OK) || ::fstat(fd.get(), &st) != 0)
            return ERROR;
        if (st.st_nlink == 0)
            continue;
        fd_ = std::move(fd);
        return OK;
    }
}

// An unpack that fails takes a base that it made itself along, if it is empty.
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
    if (!alone_)
        return OK;
    // While nobody else is there what is half made is found; it is deleted when others are again.
    TextList dead;
    const bool found = find_leftovers(base, &dead) == OK;
    if (share() != OK)
        return ERROR;
    if (found)
        delete_leftovers(dead);
    return OK;
}

STATUS StoreLock::take_alone(std::string_view base)
{
    path_ = path_in(base, kLockName);
    return path_ ? open_locked(Want::kAlone) : ERROR;
}

} // namespace znc
