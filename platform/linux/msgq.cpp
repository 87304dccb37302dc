// msgq.cpp - named message queues over POSIX message queues.
//
// All descriptors are non-blocking. Waits use ppoll with a deadline on the monotonic clock, because
// the timed POSIX calls use the wall clock, which may be set.
#include "zarnel/msgq.h"

#include "base/failure.hpp"
#include "base/owned.hpp"
#include "msgq_line.hpp"
#include "msgq_owner.hpp"
#include "msgq_probe.hpp"
#include "platform/common/clock.hpp"
#include "platform/common/queue_receive.hpp"
#include "zarnel/task.h"

#include <cstdio>
#include <fcntl.h>
#include <mqueue.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t kQueueMode = 0600;
constexpr int kCreateTimeoutSeconds = 5;
constexpr int kCreateTries = 3;
constexpr int kCreatorChecksPerSecond = 5; // while waiting for room
constexpr int kNameTries = 200;
constexpr std::int64_t kRetryPauseNs = 200000; // between two attempts of the first in line
constexpr const char* kMsgMax = "/proc/sys/fs/mqueue/msg_max";
constexpr const char* kMsgSizeMax = "/proc/sys/fs/mqueue/msgsize_max";
constexpr int kOpenFlags = O_RDWR | O_NONBLOCK | O_CLOEXEC;

// ---------------------------------------------------------------- opening

MSG_Q_ID open_existing(const char* name)
{
    znc::UniqueFd q(mq_open(name, kOpenFlags));
    if (!q)
        return ZN_MSG_Q_INVALID;
    // Root can open the queues of all users. Without this check another user could pose as the
    // daemon, or read messages meant for a client.
    return zn::queue_is_private(q.get()) ? q.release() : ZN_MSG_Q_INVALID;
}

// Raises one of the system's queue limits to at least `wanted`.
bool raise_setting(const char* file, long wanted)
{
    znc::UniqueFd fd(open(file, O_RDWR | O_CLOEXEC));
    if (!fd)
        return false;
    char text[32];
    const ssize_t got = read(fd.get(), text, sizeof text - 1);
    if (got <= 0)
        return false;
    text[got] = '\0';
    if (strtol(text, nullptr, 10) >= wanted)
        return true;
    const int len = snprintf(text, sizeof text, "%ld", wanted);
    return pwrite(fd.get(), text, static_cast<size_t>(len), 0) == len;
}

// A queue of this name that another user owns is removed, if permitted, and the creation retried.
// If that user recreates it in a loop, some of the attempts still succeed.
MSG_Q_ID create_once(const char* name, struct mq_attr* attr)
{
    for (int n = 0; n < kNameTries; ++n) {
        znc::UniqueFd q(mq_open(name, kOpenFlags | O_CREAT | O_EXCL, kQueueMode, attr));
        if (!q && errno == EEXIST && zn::queue_remove_foreign(name))
            continue;
        if (!q) {
            if (errno == EACCES || errno == EPERM)
                errno = EEXIST; // another user's queue, which only its owner and root can remove
            return ZN_MSG_Q_INVALID;
        }
        // The umask may have cleared mode bits.
        if (fchmod(q.get(), kQueueMode) == 0 && zn::queue_mark_in_use(q.get()))
            return q.release();
        if (errno != ENOENT) {
            const znc::ErrnoSaver keep;
            mq_unlink(name);
            return ZN_MSG_Q_INVALID;
        }
    }
    return znc::fail(EEXIST, ZN_MSG_Q_INVALID);
}

// mq_open fails with EINVAL if the capacity exceeds the limits of this IPC namespace and the caller
// has no CAP_SYS_RESOURCE. Another process may lower the limits between raising and creating, hence
// several attempts.
MSG_Q_ID create_raising_limits(const char* name, struct mq_attr* attr)
{
    MSG_Q_ID q = create_once(name, attr);
    for (int n = 1; n < kCreateTries && q < 0 && errno == EINVAL; ++n) {
        if (attr->mq_maxmsg <= 0 || attr->mq_msgsize <= 0)
            break;
        if (!raise_setting(kMsgMax, attr->mq_maxmsg) ||
            !raise_setting(kMsgSizeMax, attr->mq_msgsize)) {
            errno = EINVAL;
            break;
        }
        q = create_once(name, attr);
    }
    return q;
}

// mq_open fails with EMFILE both for exhausted queue memory and for exhausted descriptors of the
// process.
bool out_of_descriptors()
{
    const znc::ErrnoSaver keep;
    return !znc::UniqueFd(open("/", O_PATH | O_CLOEXEC));
}

// The queue that the calling task created first, while that is open; -1: none.
thread_local MSG_Q_ID firstCreated = ZN_MSG_Q_INVALID;

bool is_exhausted(MSG_Q_ID q)
{
    return q < 0 && (errno == EMFILE || errno == ENOSPC) && !out_of_descriptors();
}

// When queue memory or the number of queues is exhausted, every caller waits in line, so that a
// newcomer, in particular the task that has just freed a queue, cannot take what becomes free
// before those that wait.
MSG_Q_ID create_in_turn(const char* name, struct mq_attr* attr)
{
    const bool hasQueue = firstCreated >= 0;
    if (hasQueue || !zn::queue_line_is_taken()) {
        const MSG_Q_ID q = create_raising_limits(name, attr);
        if (!is_exhausted(q))
            return q;
    }
    const std::int64_t deadline = zn::now_ns() + kCreateTimeoutSeconds * zn::kNsPerSec;
    zn::QueueLinePlace place(hasQueue);
    for (;;) {
        place.wait_turn(deadline);
        const MSG_Q_ID q = create_raising_limits(name, attr);
        if (!is_exhausted(q) || zn::now_ns() >= deadline)
            return q;
        const struct timespec pause = zn::to_timespec(kRetryPauseNs);
        nanosleep(&pause, nullptr);
    }
}

MSG_Q_ID create_exclusive(const char* name, size_t maxMsgs, size_t maxMsgLen)
{
    constexpr size_t kLongMax = static_cast<size_t>(INT32_MAX);
    if (maxMsgs > kLongMax || maxMsgLen > kLongMax)
        return znc::fail(EINVAL, ZN_MSG_Q_INVALID);
    struct mq_attr attr = {};
    attr.mq_maxmsg = static_cast<long>(maxMsgs);
    attr.mq_msgsize = static_cast<long>(maxMsgLen);
    const MSG_Q_ID q = create_in_turn(name, &attr);
    if (q >= 0 && firstCreated < 0)
        firstCreated = q;
    return q;
}

// ---------------------------------------------------------------- waiting

// The timeout of one call. The deadline is computed at the first wait.
class Wait {
  public:
    explicit Wait(int ticks) noexcept : ticks_(ticks) {}

    [[nodiscard]] bool forever() const noexcept { return ticks_ < 0; }

    // Waits until one of `fds` is ready. False with EAGAIN (ZN_NO_WAIT), ETIMEDOUT, or ppoll's
    // error.
    bool poll_until_ready(struct pollfd* fds, nfds_t count) noexcept
    {
        if (ticks_ == ZN_NO_WAIT)
            return znc::fail(EAGAIN, false);
        if (ticks_ > 0 && deadline_ < 0)
            deadline_ = zn::deadline_ns(ticks_);
        for (;;) {
            struct timespec left = {};
            if (!forever()) {
                const std::int64_t ns = deadline_ - zn::now_ns();
                left = zn::to_timespec(ns > 0 ? ns : 0);
            }
            const int ready = ppoll(fds, count, forever() ? nullptr : &left, nullptr);
            if (ready > 0)
                return true;
            if (ready == 0)
                errno = ETIMEDOUT;
            if (errno != EINTR)
                return false;
        }
    }

  private:
    int ticks_;
    std::int64_t deadline_ = -1;
};

// For a receive that may wait. False with ECANCELED when the task's stop descriptor is ready, which
// takes precedence over messages. An unusable stop descriptor counts as ready.
bool wait_unless_stopped(MSG_Q_ID q, int stop, Wait* wait)
{
    struct pollfd fds[2] = {{q, POLLIN, 0}, {stop, POLLIN, 0}};
    if (!wait->poll_until_ready(fds, 2))
        return false;
    if (fds[1].revents == 0)
        return true;
    return znc::fail(ECANCELED, false);
}

bool wait_for_room(MSG_Q_ID q, Wait* wait)
{
    struct pollfd fd = {q, POLLOUT, 0};
    return wait->poll_until_ready(&fd, 1);
}

// Waits without a timeout, but not for an abandoned queue. There is no event for the end of a
// queue's creator, so it is checked for periodically. False with EPIPE if the queue is abandoned.
bool wait_for_room(MSG_Q_ID q)
{
    for (;;) {
        if (zn::queue_is_abandoned(q))
            return znc::fail(EPIPE, false);
        Wait interval(znSysClkRateGet() / kCreatorChecksPerSecond + 1);
        if (wait_for_room(q, &interval))
            return true;
        if (errno != ETIMEDOUT)
            return false;
    }
}

} // namespace

MSG_Q_ID znMsgQOpen(const char* name, size_t maxMsgs, size_t maxMsgLen, int options, int mode)
{
    static_cast<void>(options); // the kernel decides the order of receivers
    if (name == nullptr || (mode != ZN_MSG_Q_OPEN_EXISTING && mode != ZN_MSG_Q_CREATE_EXCLUSIVE))
        return znc::fail(EINVAL, ZN_MSG_Q_INVALID);
    return mode == ZN_MSG_Q_OPEN_EXISTING ? open_existing(name)
                                          : create_exclusive(name, maxMsgs, maxMsgLen);
}

MSG_Q_ID znMsgQTakeOver(const char* name, size_t maxMsgs, size_t maxMsgLen)
{
    znc::UniqueFd q(open_existing(name));
    struct mq_attr attr;
    if (!q || mq_getattr(q.get(), &attr) != 0 || attr.mq_maxmsg != static_cast<long>(maxMsgs) ||
        attr.mq_msgsize != static_cast<long>(maxMsgLen))
        return znc::fail(ENOENT, ZN_MSG_Q_INVALID);
    if (!zn::queue_is_abandoned(q.get()))
        return znc::fail(EBUSY, ZN_MSG_Q_INVALID);
    return zn::queue_mark_in_use(q.get()) ? q.release() : ZN_MSG_Q_INVALID;
}

STATUS znMsgQSend(MSG_Q_ID q, const void* msg, size_t len, int timeout, int priority)
{
    if (msg == nullptr && len != 0)
        return znc::fail(EINVAL);
    const char* const bytes = msg != nullptr ? static_cast<const char*>(msg) : "";
    Wait wait(timeout);
    for (;;) {
        if (mq_send(q, bytes, len, static_cast<unsigned>(priority)) == 0)
            return OK;
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN || !(wait.forever() ? wait_for_room(q) : wait_for_room(q, &wait)))
            return ERROR;
    }
}

ssize_t znMsgQReceive(MSG_Q_ID q, void* buf, size_t maxLen, int timeout)
{
    Wait wait(timeout);
    const int stop = timeout != ZN_NO_WAIT ? znTaskStopFdGet() : -1;
    for (;;) {
        if (stop >= 0 && !wait_unless_stopped(q, stop, &wait))
            return -1;
        const ssize_t got = zn::queue_receive(q, buf, maxLen);
        if (got >= 0)
            return got;
        if (errno == EINTR || (errno == EAGAIN && stop >= 0))
            continue;
        struct pollfd fd = {q, POLLIN, 0};
        if (errno != EAGAIN || !wait.poll_until_ready(&fd, 1))
            return -1;
    }
}

BOOL znMsgQEmpty(MSG_Q_ID q)
{
    const znc::ErrnoSaver keep;
    struct mq_attr attr;
    return mq_getattr(q, &attr) == 0 && attr.mq_curmsgs == 0 ? TRUE : FALSE;
}

STATUS znMsgQClose(MSG_Q_ID q)
{
    if (q == firstCreated)
        firstCreated = ZN_MSG_Q_INVALID;
    return close(q) == 0 ? OK : ERROR; // as mq_close does; ThreadSanitizer intercepts only close()
}

STATUS znMsgQUnlink(const char* name)
{
    if (name == nullptr)
        return znc::fail(EINVAL);
    return mq_unlink(name) == 0 ? OK : ERROR;
}

STATUS znMsgQLimitsRaise(size_t maxMsgs, size_t maxMsgLen)
{
    if (maxMsgs == 0 || maxMsgs > INT32_MAX || maxMsgLen == 0 || maxMsgLen > INT32_MAX)
        return znc::fail(EINVAL);
    struct rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_MSGQUEUE, &limit) != 0 && getrlimit(RLIMIT_MSGQUEUE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_MSGQUEUE, &limit);
    }
    raise_setting(kMsgMax, static_cast<long>(maxMsgs));

    // Only creating a queue shows whether the limits suffice: a privileged caller may exceed them.
    char name[64];
    snprintf(name, sizeof name, ZN_MSG_Q_PROBE_FORMAT, static_cast<long>(getpid()),
             static_cast<unsigned long>(zn::now_ns()));
    struct mq_attr attr = {};
    attr.mq_maxmsg = static_cast<long>(maxMsgs);
    attr.mq_msgsize = static_cast<long>(maxMsgLen);
    const znc::UniqueFd probe(create_in_turn(name, &attr));
    if (!probe)
        return ERROR;
    mq_unlink(name);
    return OK;
}

const char* znMsgQLimitHint(int errorNumber)
{
    switch (errorNumber) {
    case EMFILE:
        return "the queue memory of this user is used up: remove unused queues, or raise "
               "the limit RLIMIT_MSGQUEUE (ulimit -q; LimitMSGQUEUE= in a systemd unit)";
    case ENOSPC:
        return "the number of queues has reached the limit of the system: remove unused queues, or "
               "raise the kernel setting fs.mqueue.queues_max";
    default:
        return "raise the kernel setting fs.mqueue.msg_max (sysctl -w fs.mqueue.msg_max=32)";
    }
}
