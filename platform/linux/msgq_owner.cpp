#include "msgq_owner.hpp"

#include "base/owned.hpp"
#include "clock.hpp"
#include "zarnel/msgq.h"

#include <cstdio>
#include <fcntl.h>
#include <mqueue.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr mode_t kOthers = S_IRWXG | S_IRWXO;
constexpr int kLookFlags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
constexpr int kLooks = 10;
constexpr std::int64_t kLookPauseNs = 1000000;

// Another handle of the same queue. A lock that is tried on the handle itself would replace the
// maker's own lock where the caller is the maker.
UniqueFd handle_of_its_own(int q) noexcept
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", q);
    return UniqueFd(::open(path, kLookFlags));
}

bool lock(int q, int operation) noexcept
{
    int result = 0;
    do {
        result = ::flock(q, operation);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

} // namespace

bool queue_mark_in_use(int q) noexcept
{
    struct stat st;
    if (!lock(q, LOCK_SH) || ::fstat(q, &st) != 0)
        return false;
    errno = ENOENT;
    return st.st_nlink > 0;
}

bool queue_is_private(int q) noexcept
{
    struct stat st;
    if (::fstat(q, &st) != 0)
        return false;
    errno = EACCES;
    return st.st_uid == ::geteuid() && (st.st_mode & kOthers) == 0;
}

bool queue_is_abandoned(int q) noexcept
{
    const znc::ErrnoSaver keep;
    struct stat st;
    if (::fstat(q, &st) == 0 && st.st_nlink == 0)
        return true;
    const UniqueFd mine = handle_of_its_own(q);
    return mine && lock(mine.get(), LOCK_EX | LOCK_NB); // given back with the handle
}

bool queue_remove_foreign(const char* name) noexcept
{
    const UniqueFd queue(mq_open(name, kLookFlags));
    if (!queue && errno == ENOENT)
        return true;
    struct stat st;
    if (queue && ::fstat(queue.get(), &st) != 0)
        return false;
    // One that cannot be opened is another user's: this user's own are open to it.
    if (queue && st.st_uid == ::geteuid()) {
        errno = EEXIST;
        return false;
    }
    return mq_unlink(name) == 0 || errno == ENOENT;
}

} // namespace zn

// A maker's lock is shared and stays. Whoever looks for a maker (queue_is_abandoned) has the lock
// exclusively for a moment, in which it is no sign of a maker but proves that there is none.
BOOL znMsgQInUse(const char* name)
{
    const znc::ErrnoSaver keep;
    const znc::UniqueFd queue(znMsgQOpen(name, 0, 0, ZN_MSG_Q_FIFO, ZN_MSG_Q_OPEN_EXISTING));
    if (!queue)
        return FALSE;
    for (int n = 0; n < zn::kLooks; ++n) {
        if (zn::lock(queue.get(), LOCK_EX | LOCK_NB) || !zn::lock(queue.get(), LOCK_SH | LOCK_NB))
            return FALSE;
        zn::lock(queue.get(), LOCK_UN);
        const timespec pause = zn::to_timespec(zn::kLookPauseNs);
        ::nanosleep(&pause, nullptr);
    }
    return TRUE;
}

STATUS znMsgQDiscard(const char* name)
{
    if (name == nullptr) {
        errno = EINVAL;
        return ERROR;
    }
    if (zn::queue_remove_foreign(name))
        return OK;
    if (errno != EEXIST)
        return ERROR;
    const znc::UniqueFd queue(mq_open(name, zn::kLookFlags));
    if (queue && !zn::queue_is_abandoned(queue.get())) {
        errno = EBUSY;
        return ERROR;
    }
    return mq_unlink(name) == 0 || errno == ENOENT ? OK : ERROR;
}
