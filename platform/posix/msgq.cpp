// msgq.cpp - named message queues over POSIX message queues.
//
// POSIX neither waits for a queue on the monotonic clock nor together with a descriptor, so that
// waits are short pauses between attempts.
#include "zarnel/msgq.h"

#include "base/failure.hpp"
#include "base/owned.hpp"
#include "msgq_record.hpp"
#include "platform/common/clock.hpp"
#include "platform/common/queue_receive.hpp"
#include "zarnel/task.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <mqueue.h>
#include <mutex>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using zn::QueueRecord;

constexpr std::size_t kHandlesMax = 1024;
constexpr int kQueueAccess = O_RDWR | O_NONBLOCK;
constexpr mode_t kQueueMode = S_IRUSR | S_IWUSR;
constexpr int kCreateTimeoutSeconds = 5;
constexpr std::int64_t kFirstPauseNs = 100000;
constexpr std::int64_t kLongestPauseNs = 10000000;
constexpr std::int64_t kCreatorCheckNs = 200000000; // while waiting for room

// ---------------------------------------------------------------- handles

class Queue {
  public:
    Queue(mqd_t queue, QueueRecord record) noexcept : queue_(queue), record_(std::move(record)) {}
    Queue(Queue&& other) noexcept
        : queue_(std::exchange(other.queue_, static_cast<mqd_t>(-1))),
          record_(std::move(other.record_))
    {
    }
    Queue& operator=(Queue&& other) noexcept
    {
        std::swap(queue_, other.queue_);
        std::swap(record_, other.record_);
        return *this;
    }
    constexpr Queue() noexcept = default;
    ~Queue()
    {
        const znc::ErrnoSaver keep;
        if (record_)
            record_.note_closed();
        if (*this)
            mq_close(queue_);
    }

    explicit operator bool() const noexcept { return queue_ != static_cast<mqd_t>(-1); }
    [[nodiscard]] mqd_t get() const noexcept { return queue_; }
    [[nodiscard]] const QueueRecord& record() const noexcept { return record_; }

  private:
    mqd_t queue_ = static_cast<mqd_t>(-1);
    QueueRecord record_;
};

// A queue's descriptor need not be a number in POSIX; a handle is.
class HandleTable {
  public:
    MSG_Q_ID add(Queue queue)
    {
        const std::lock_guard guard(lock_);
        const auto free =
            std::find_if(queues_.begin(), queues_.end(), [](const Queue& one) { return !one; });
        if (free == queues_.end())
            return znc::fail(EMFILE);
        *free = std::move(queue);
        return static_cast<MSG_Q_ID>(free - queues_.begin());
    }

    // The entry stays where it is until it is removed. Null with errno EBADF.
    const Queue* find(MSG_Q_ID handle)
    {
        const std::lock_guard guard(lock_);
        if (handle >= 0 && static_cast<std::size_t>(handle) < queues_.size() &&
            queues_[static_cast<std::size_t>(handle)])
            return &queues_[static_cast<std::size_t>(handle)];
        return znc::fail(EBADF, nullptr);
    }

    STATUS remove(MSG_Q_ID handle)
    {
        if (find(handle) == nullptr)
            return ERROR;
        Queue closed;
        const std::lock_guard guard(lock_);
        std::swap(closed, queues_[static_cast<std::size_t>(handle)]);
        return OK;
    }

  private:
    std::mutex lock_;
    std::array<Queue, kHandlesMax> queues_;
};

HandleTable handles;

// ---------------------------------------------------------------- waiting

// The timeout of one call; each pause is twice as long as the one before.
class Wait {
  public:
    explicit Wait(int ticks) : ticks_(ticks), deadline_(ticks > 0 ? zn::deadline_ns(ticks) : 0) {}

    [[nodiscard]] bool forever() const { return ticks_ < 0; }

    // Waits a moment, at most until `stop` (-1: none) is readable. False with EAGAIN (ZN_NO_WAIT)
    // or ETIMEDOUT.
    bool pause(int stop)
    {
        const std::int64_t left = forever() ? kLongestPauseNs : deadline_ - zn::now_ns();
        if (ticks_ == ZN_NO_WAIT || left <= 0)
            return znc::fail(ticks_ == ZN_NO_WAIT ? EAGAIN : ETIMEDOUT, false);
        const timespec time = zn::to_timespec(std::min(left, length_));
        length_ = std::min(2 * length_, kLongestPauseNs);
        pollfd fd = {stop, POLLIN, 0}; // a negative descriptor is ignored
        ppoll(&fd, 1, &time, nullptr);
        return true;
    }

  private:
    int ticks_;
    std::int64_t deadline_;
    std::int64_t length_ = kFirstPauseNs;
};

// An unusable stop descriptor counts as ready.
bool is_stopped(int stop)
{
    pollfd fd = {stop, POLLIN, 0};
    return stop >= 0 && poll(&fd, 1, 0) > 0;
}

// ---------------------------------------------------------------- opening

Queue open_existing(const char* name)
{
    QueueRecord record = QueueRecord::find(name);
    if (!record)
        return {};
    if (record.queue()[0] == '\0') { // being created
        errno = ENOENT;
        return {};
    }
    const mqd_t queue = mq_open(record.queue(), kQueueAccess);
    return queue != static_cast<mqd_t>(-1) ? Queue(queue, std::move(record)) : Queue();
}

// While queue memory or the number of queues is exhausted, waits for others to remove queues.
mqd_t create_waiting(const char* name, struct mq_attr* attr)
{
    Wait wait(kCreateTimeoutSeconds * znSysClkRateGet());
    for (;;) {
        const mqd_t queue = mq_open(name, kQueueAccess | O_CREAT | O_EXCL, kQueueMode, attr);
        if (queue != static_cast<mqd_t>(-1) || (errno != EMFILE && errno != ENOSPC))
            return queue;
        const int error = errno;
        if (!wait.pause(-1)) {
            errno = error;
            return queue;
        }
    }
}

Queue create(const char* name, size_t maxMsgs, size_t maxMsgLen)
{
    constexpr size_t kLongMax = static_cast<size_t>(INT32_MAX);
    char own[NAME_MAX + 2];
    const int len = snprintf(own, sizeof own, "%s.%lx.%llx", name, static_cast<long>(getpid()),
                             static_cast<unsigned long long>(zn::now_ns()));
    if (maxMsgs > kLongMax || maxMsgLen > kLongMax || len < 0 ||
        static_cast<size_t>(len) >= sizeof own) {
        errno = maxMsgs > kLongMax || maxMsgLen > kLongMax ? EINVAL : ENAMETOOLONG;
        return {};
    }
    struct mq_attr attr = {};
    attr.mq_maxmsg = static_cast<long>(maxMsgs);
    attr.mq_msgsize = static_cast<long>(maxMsgLen);
    QueueRecord record = QueueRecord::create(name);
    if (!record)
        return {};
    const mqd_t queue = create_waiting(own, &attr);
    if (queue == static_cast<mqd_t>(-1)) {
        const znc::ErrnoSaver keep;
        shm_unlink(name);
        return {};
    }
    record.publish(own);
    return {queue, std::move(record)};
}

} // namespace

MSG_Q_ID znMsgQOpen(const char* name, size_t maxMsgs, size_t maxMsgLen, int options, int mode)
{
    static_cast<void>(options); // the system decides the order of receivers
    if (name == nullptr || (mode != ZN_MSG_Q_OPEN_EXISTING && mode != ZN_MSG_Q_CREATE_EXCLUSIVE))
        return znc::fail(EINVAL);
    Queue queue =
        mode == ZN_MSG_Q_OPEN_EXISTING ? open_existing(name) : create(name, maxMsgs, maxMsgLen);
    return queue ? handles.add(std::move(queue)) : ZN_MSG_Q_INVALID;
}

// A queue belongs to the process that its record names.
MSG_Q_ID znMsgQTakeOver(const char*, size_t, size_t)
{
    return znc::fail(ENOTSUP);
}

BOOL znMsgQEmpty(MSG_Q_ID q)
{
    const znc::ErrnoSaver keep;
    const Queue* queue = handles.find(q);
    struct mq_attr attr = {};
    return queue != nullptr && mq_getattr(queue->get(), &attr) == 0 && attr.mq_curmsgs == 0 ? TRUE
                                                                                            : FALSE;
}

STATUS znMsgQSend(MSG_Q_ID q, const void* msg, size_t len, int timeout, int priority)
{
    if (msg == nullptr && len != 0)
        return znc::fail(EINVAL);
    const Queue* queue = handles.find(q);
    if (queue == nullptr)
        return ERROR;
    const char* const bytes = msg != nullptr ? static_cast<const char*>(msg) : "";
    Wait wait(timeout);
    std::int64_t check = 0;
    for (;;) {
        if (mq_send(queue->get(), bytes, len, static_cast<unsigned>(priority)) == 0)
            return OK;
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN)
            return ERROR;
        if (wait.forever() && zn::now_ns() >= check) {
            if (queue->record().is_abandoned())
                return znc::fail(EPIPE);
            check = zn::now_ns() + kCreatorCheckNs;
        }
        if (!wait.pause(-1))
            return ERROR;
    }
}

ssize_t znMsgQReceive(MSG_Q_ID q, void* buf, size_t maxLen, int timeout)
{
    const Queue* queue = handles.find(q);
    if (queue == nullptr)
        return ERROR;
    Wait wait(timeout);
    const int stop = timeout != ZN_NO_WAIT ? znTaskStopFdGet() : -1;
    for (;;) {
        if (is_stopped(stop))
            return znc::fail(ECANCELED);
        const ssize_t got = zn::queue_receive(queue->get(), buf, maxLen);
        if (got >= 0)
            return got;
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN || !wait.pause(stop))
            return -1;
    }
}

STATUS znMsgQClose(MSG_Q_ID q)
{
    return handles.remove(q);
}

STATUS znMsgQUnlink(const char* name)
{
    if (name == nullptr)
        return znc::fail(EINVAL);
    const QueueRecord record = QueueRecord::find(name);
    if (!record && errno != EACCES) // EACCES: another user's
        return ERROR;
    if (shm_unlink(name) != 0)
        return ERROR;
    if (!record)
        return OK;
    record.note_removed();
    return record.queue()[0] == '\0' ? OK : mq_unlink(record.queue());
}

STATUS znMsgQDiscard(const char* name)
{
    if (name == nullptr)
        return znc::fail(EINVAL);
    if (zn::queue_record_remove_foreign(name))
        return OK;
    if (errno != EEXIST)
        return ERROR;
    const QueueRecord record = QueueRecord::find(name);
    if (!record)
        return errno == ENOENT ? znc::fail(EBUSY) : ERROR; // ENOENT: being created
    return record.is_abandoned() ? znMsgQUnlink(name) : znc::fail(EBUSY);
}

BOOL znMsgQInUse(const char* name)
{
    const znc::ErrnoSaver keep;
    const QueueRecord record = QueueRecord::find(name);
    return record && !record.is_abandoned() ? TRUE : FALSE;
}

// POSIX cannot list queues.
int znMsgQReclaim(long (*)(const char*))
{
    return znc::fail(ENOTSUP);
}

STATUS znMsgQLimitsRaise(size_t maxMsgs, size_t maxMsgLen)
{
    if (maxMsgs == 0 || maxMsgs > INT32_MAX || maxMsgLen == 0 || maxMsgLen > INT32_MAX)
        return znc::fail(EINVAL);
    // Only creating a queue shows whether the limits suffice.
    char name[64];
    snprintf(name, sizeof name, "/zn-probe-%ld-%llx", static_cast<long>(getpid()),
             static_cast<unsigned long long>(zn::now_ns()));
    const Queue probe = create(name, maxMsgs, maxMsgLen);
    return probe ? znMsgQUnlink(name) : ERROR;
}

const char* znMsgQLimitHint(int)
{
    return "remove unused queues, or raise the limits of the system on message queues";
}
