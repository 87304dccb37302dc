// task.cpp - the calling task: clock rate, deletion safety (thread cancellation disabled, with a
// per-thread count), and the stop descriptor.
#include "zarnel/task.h"

#include <pthread.h>
#include <unistd.h>

namespace {

constexpr int kDefaultRate = 100;

thread_local unsigned safe_depth = 0;
thread_local int state_outside = PTHREAD_CANCEL_ENABLE; // the state before the outermost znTaskSafe
thread_local int stop_fd = -1;

} // namespace

int znSysClkRateGet(void)
{
    const long rate = sysconf(_SC_CLK_TCK);
    return rate > 0 ? static_cast<int>(rate) : kDefaultRate;
}

void znTaskSafe(void)
{
    if (safe_depth++ == 0)
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_outside);
}

void znTaskUnsafe(void)
{
    if (safe_depth == 0 || --safe_depth != 0)
        return;
    int ignored;
    pthread_setcancelstate(state_outside, &ignored);
}

void znTaskStopFdSet(int fd)
{
    stop_fd = fd;
}

int znTaskStopFdGet(void)
{
    return stop_fd;
}
