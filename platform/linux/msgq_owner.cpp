#include "msgq_owner.hpp"

#include "base/failure.hpp"
#include "base/owned.hpp"
#include "platform/common/clock.hpp"
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

constexpr mode_t kGroupAndOthers = S_IRWXG | S_IRWXO;
constexpr int kOpenFlags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
constexpr int kChecks = 10;
constexpr std::int64_t kCheckPauseNs = 1000000;

// A second open file description of the same queue. Locking `q` itself would convert the creator's
// lock if the caller is the creator.
UniqueFd reopen_queue(int q) noexcept
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", q);
    return UniqueFd(::open(path, kOpenFlags));
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
    return st.st_uid == ::geteuid() && (st.st_mode & kGroupAndOthers) == 0;
}

bool queue_is_abandoned(int q) noexcept
{
    const znc::ErrnoSaver keep;
    struct stat st;
    if (::fstat(q, &st) == 0 && st.st_nlink == 0)
        return true;
    const UniqueFd reopened = reopen_queue(q);
    return reopened &&
           lock(reopened.get(), LOCK_EX | LOCK_NB); // released when the handle is closed
}

bool queue_remove_foreign(const char* name) noexcept
{
    const UniqueFd queue(mq_open(name, kOpenFlags));
    if (!queue && errno == ENOENT)
        return true;
    struct stat st;
    if (queue && ::fstat(queue.get(), &st) != 0)
        return false;
    // A queue that cannot be opened is another user's: this user's own can be opened.
    if (queue && st.st_uid == ::geteuid())
        return znc::fail(EEXIST, false);
    return mq_unlink(name) == 0 || errno == ENOENT;
}

} // namespace zn

// The creator of a queue holds a shared lock permanently. A process that checks for the creator
// (queue_is_abandoned) holds an exclusive lock for a moment, which it gets only if there is no
// creator. So if a shared lock cannot be taken, the queue is abandoned.
BOOL znMsgQInUse(const char* name)
{
    const znc::ErrnoSaver keep;
    const znc::UniqueFd queue(znMsgQOpen(name, 0, 0, ZN_MSG_Q_FIFO, ZN_MSG_Q_OPEN_EXISTING));
    if (!queue)
        return FALSE;
    for (int n = 0; n < zn::kChecks; ++n) {
        if (zn::lock(queue.get(), LOCK_EX | LOCK_NB) || !zn::lock(queue.get(), LOCK_SH | LOCK_NB))
            return FALSE;
        zn::lock(queue.get(), LOCK_UN);
        const timespec pause = zn::to_timespec(zn::kCheckPauseNs);
        ::nanosleep(&pause, nullptr);
    }
    return TRUE;
}

STATUS znMsgQDiscard(const char* name)
{
    if (name == nullptr)
        return znc::fail(EINVAL);
    if (zn::queue_remove_foreign(name))
        return OK;
    if (errno != EEXIST)
        return ERROR;
    const znc::UniqueFd queue(mq_open(name, zn::kOpenFlags));
    if (queue && !zn::queue_is_abandoned(queue.get()))
        return znc::fail(EBUSY);
    return mq_unlink(name) == 0 || errno == ENOENT ? OK : ERROR;
}
