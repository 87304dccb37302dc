// The thread sanitizer of g++ 12 and clang 14 does not know pthread_mutex_clocklock: a mutex taken
// by it looks untaken, and everything it guards looks raced for. In sanitizer builds it becomes a
// timed lock on the wall clock, which is known. In other builds this file is empty.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZNC_TEST_TSAN
#endif
#elif defined(__SANITIZE_THREAD__)
#define ZNC_TEST_TSAN
#endif

#ifdef ZNC_TEST_TSAN
#include <ctime>
#include <pthread.h>

extern "C" __attribute__((visibility("default"))) int
pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const struct timespec* until)
{
    constexpr long kNsPerSecond = 1000000000;
    struct timespec now, wall;
    clock_gettime(clock, &now);
    clock_gettime(CLOCK_REALTIME, &wall);
    struct timespec end = {wall.tv_sec + (until->tv_sec - now.tv_sec),
                           wall.tv_nsec + (until->tv_nsec - now.tv_nsec)};
    end.tv_sec += end.tv_nsec < 0 ? -1 : end.tv_nsec / kNsPerSecond;
    end.tv_nsec = (end.tv_nsec + kNsPerSecond) % kNsPerSecond;
    return pthread_mutex_timedlock(mutex, &end);
}
#endif
