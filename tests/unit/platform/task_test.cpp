#include "zarnel/task.h"

#include "one_processor.hpp"
#include "platform_only.hpp"

#include <pthread.h>
#include <sched.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

bool cancellable()
{
    int state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    int ignored;
    pthread_setcancelstate(state, &ignored);
    return state == PTHREAD_CANCEL_ENABLE;
}

TEST(Task, ClockRateIsTheSystems)
{
    EXPECT_EQ(znSysClkRateGet(), sysconf(_SC_CLK_TCK));
}

TEST(Task, ProcessorsAreThoseThatTheTaskMayRunOn)
{
    LINUX_ONLY("no affinity to processors");
    cpu_set_t before;
    ASSERT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
    EXPECT_EQ(znTaskProcessors(), static_cast<size_t>(CPU_COUNT(&before)));
    const OneProcessor one;
    EXPECT_EQ(znTaskProcessors(), 1U);
}

TEST(Task, SafetyNestsAndEndsWithTheOutermost)
{
    ASSERT_TRUE(cancellable());
    znTaskSafe();
    znTaskSafe();
    EXPECT_FALSE(cancellable());
    znTaskUnsafe();
    EXPECT_FALSE(cancellable());
    znTaskUnsafe();
    EXPECT_TRUE(cancellable());
}

TEST(Task, UnmatchedUnsafeDoesNothing)
{
    znTaskUnsafe();
    znTaskSafe();
    EXPECT_FALSE(cancellable());
    znTaskUnsafe();
    EXPECT_TRUE(cancellable());
}

TEST(Task, UnsafeGivesBackTheStateFoundByTheOutermostSafe)
{
    int ignored;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);
    znTaskSafe();
    znTaskUnsafe();
    EXPECT_FALSE(cancellable());
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &ignored);
}

TEST(Task, SafetyBelongsToTheCallingTaskOnly)
{
    znTaskSafe();
    bool other = false;
    std::thread([&] { other = cancellable(); }).join();
    znTaskUnsafe();
    EXPECT_TRUE(other);
}

TEST(Task, StopDescriptorIsNoneByDefaultAndOwnToEachTask)
{
    EXPECT_EQ(znTaskStopFdGet(), -1);
    znTaskStopFdSet(7);
    EXPECT_EQ(znTaskStopFdGet(), 7);
    int other = 0;
    std::thread([&] { other = znTaskStopFdGet(); }).join();
    EXPECT_EQ(other, -1);
    znTaskStopFdSet(-1);
}

} // namespace
