// mutex.cpp - mutual-exclusion semaphores over priority-inheriting recursive pthread mutexes. Owner
// and depth are stored next to the pthread mutex, so that a give or delete by another task fails
// without touching it.
#include "zarnel/mutex.h"

#include "base/failure.hpp"
#include "base/owned.hpp"
#include "platform/common/clock.hpp"
#include "zarnel/msgq.h"
#include "zarnel/task.h"

#include <atomic>
#include <new>
#include <pthread.h>

struct znMutex {
    pthread_mutex_t mutex;
    std::atomic<const void*> owner; // compared only with the caller's own identity
    unsigned depth;                 // accessed by the owner only
};

namespace {

constexpr int kOptions = ZN_SEM_Q_PRIORITY | ZN_SEM_DELETE_SAFE | ZN_SEM_INVERSION_SAFE;
constexpr std::int64_t kRetryNs = 1000000;

// ThreadSanitizer does not know pthread_mutex_clocklock and would not see that the mutex is locked.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZN_THREAD_SANITIZER
#endif
#elif defined(__SANITIZE_THREAD__)
#define ZN_THREAD_SANITIZER
#endif
#ifdef ZN_THREAD_SANITIZER
constexpr bool kClockLock = false;
#else
constexpr bool kClockLock = true;
#endif

thread_local char identity;

bool is_owner(SEM_ID mutex)
{
    return mutex->owner.load(std::memory_order_relaxed) == &identity;
}

int init_mutex(pthread_mutex_t* mutex)
{
    pthread_mutexattr_t attr;
    int err = pthread_mutexattr_init(&attr);
    if (err != 0)
        return err;
    err = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    if (err == 0)
        err = pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
    if (err == 0)
        err = pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    return err;
}

// Before Linux 5.14 a priority-inheriting lock can be waited for on the wall clock only, and the
// monotonic clock is refused with EINVAL. There, pthread_mutex_trylock is polled.
int lock_by_retrying(pthread_mutex_t* mutex, std::int64_t deadline)
{
    for (;;) {
        const int err = pthread_mutex_trylock(mutex);
        if (err != EBUSY)
            return err;
        if (zn::now_ns() >= deadline)
            return ETIMEDOUT;
        const struct timespec pause = zn::to_timespec(kRetryNs);
        nanosleep(&pause, nullptr);
    }
}

int lock(pthread_mutex_t* mutex, int timeout)
{
    if (timeout == ZN_NO_WAIT)
        return pthread_mutex_trylock(mutex);
    if (timeout < 0)
        return pthread_mutex_lock(mutex);
    const std::int64_t deadline = zn::deadline_ns(timeout);
    const struct timespec until = zn::to_timespec(deadline);
    const int err = kClockLock ? pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &until) : EINVAL;
    return err == EINVAL ? lock_by_retrying(mutex, deadline) : err;
}

void give_owned(SEM_ID mutex)
{
    if (--mutex->depth == 0)
        mutex->owner.store(nullptr, std::memory_order_relaxed);
    pthread_mutex_unlock(&mutex->mutex);
    znTaskUnsafe();
}

} // namespace

SEM_ID znMutexCreate(int options)
{
    if ((options & ~kOptions) != 0)
        return znc::fail(EINVAL, nullptr);
    znc::MallocPtr<void> memory(malloc(sizeof(znMutex)));
    if (memory == nullptr)
        return nullptr;
    SEM_ID mutex = new (memory.get()) znMutex{};
    const int err = init_mutex(&mutex->mutex);
    if (err != 0)
        return znc::fail(err, nullptr);
    static_cast<void>(memory.release());
    return mutex;
}

STATUS znMutexTake(SEM_ID mutex, int timeout)
{
    if (mutex == nullptr)
        return znc::fail(EINVAL);
    znTaskSafe();
    const int err = lock(&mutex->mutex, timeout);
    if (err != 0) {
        znTaskUnsafe();
        return znc::fail(err);
    }
    mutex->owner.store(&identity, std::memory_order_relaxed);
    ++mutex->depth;
    return OK;
}

STATUS znMutexGive(SEM_ID mutex)
{
    if (mutex == nullptr)
        return znc::fail(EINVAL);
    if (!is_owner(mutex))
        return znc::fail(EPERM);
    give_owned(mutex);
    return OK;
}

STATUS znMutexDelete(SEM_ID mutex)
{
    if (mutex == nullptr)
        return znc::fail(EINVAL);
    if (is_owner(mutex)) {
        for (unsigned n = mutex->depth; n > 0; --n)
            give_owned(mutex);
    } else {
        const int err = pthread_mutex_trylock(&mutex->mutex);
        if (err != 0)
            return znc::fail(err);
        pthread_mutex_unlock(&mutex->mutex);
    }
    const int err = pthread_mutex_destroy(&mutex->mutex);
    if (err != 0)
        return znc::fail(err);
    const znc::MallocPtr<znMutex> memory(mutex);
    return OK;
}
