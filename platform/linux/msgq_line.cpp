#include "msgq_line.hpp"

#include "base/owned.hpp"
#include "platform/common/clock.hpp"
#include "zarnel/task.h"

#include <span>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

namespace zn {
namespace {

constexpr key_t kLineKey = 0x7a6e0000; // plus the user id
constexpr unsigned short kHead = 0;    // 1 while a task is at the head
constexpr unsigned short kFirst = 1;   // number of tasks that precede the head
constexpr int kCounters = 2;
constexpr int kJoinTries = 8;

union SemArg {
    int val;
    struct semid_ds* buf;
};

// Any user can create a set with this key, so both owner and creator must be this user: a creator
// can give its set to another user and still modify it.
int find_line(int flags) noexcept
{
    const auto key = static_cast<key_t>(static_cast<unsigned>(kLineKey) + geteuid());
    const int line = semget(key, kCounters, flags | 0600);
    struct semid_ds info = {};
    if (line < 0 || semctl(line, 0, IPC_STAT, SemArg{.buf = &info}) != 0)
        return -1;
    const bool own = info.sem_perm.uid == geteuid() && info.sem_perm.cuid == geteuid();
    return own && info.sem_nsems == kCounters ? line : -1;
}

bool is_empty(int line) noexcept
{
    return semctl(line, kHead, GETVAL) == 0 && semctl(line, kFirst, GETVAL) == 0;
}

// False with errno: EAGAIN at the deadline, EIDRM or EINVAL if the set was removed.
bool operate(int line, std::span<struct sembuf> steps, std::int64_t deadline) noexcept
{
    for (;;) {
        const std::int64_t left = deadline - now_ns();
        const struct timespec limit = to_timespec(left > 0 ? left : 0);
        if (semtimedop(line, steps.data(), steps.size(), &limit) == 0)
            return true;
        if (errno != EINTR)
            return false;
    }
}

// The last task to leave removes the set. A task that joins at that moment finds no set and creates
// a new one; in the worst case two tasks are at the head at the same time, once.
void leave(int line, unsigned short counter) noexcept
{
    struct sembuf minus = {counter, -1, SEM_UNDO | IPC_NOWAIT};
    if (semop(line, &minus, 1) == 0 && is_empty(line))
        semctl(line, 0, IPC_RMID);
}

} // namespace

bool queue_line_is_taken() noexcept
{
    const znc::ErrnoSaver keep;
    const int line = find_line(0);
    if (line < 0)
        return false;
    if (!is_empty(line))
        return true;
    semctl(line, 0, IPC_RMID); // the last task in it was killed
    return false;
}

QueueLinePlace::QueueLinePlace(bool hasQueue) noexcept : hasQueue_(hasQueue)
{
    znTaskSafe();
}

QueueLinePlace::~QueueLinePlace()
{
    const znc::ErrnoSaver keep;
    if (line_ >= 0)
        leave(line_, hasQueue_ ? kFirst : kHead);
    znTaskUnsafe();
}

bool QueueLinePlace::join(std::int64_t deadline) noexcept
{
    struct sembuf first[] = {{kFirst, 1, SEM_UNDO}};
    struct sembuf head[] = {{kHead, 0, 0}, {kHead, 1, SEM_UNDO}};
    for (int tries = 0; tries < kJoinTries; ++tries) {
        const int line = find_line(IPC_CREAT);
        if (line < 0)
            return false;
        if (operate(line, hasQueue_ ? std::span<struct sembuf>(first) : head, deadline)) {
            line_ = line;
            return true;
        }
        if (errno != EIDRM && errno != EINVAL)
            return false;
    }
    return false;
}

void QueueLinePlace::wait_turn(std::int64_t deadline) noexcept
{
    const znc::ErrnoSaver keep;
    if (line_ < 0 && !join(deadline))
        return;
    struct sembuf noneFirst[] = {{kFirst, 0, 0}};
    if (!hasQueue_)
        operate(line_, noneFirst, deadline);
}

} // namespace zn
