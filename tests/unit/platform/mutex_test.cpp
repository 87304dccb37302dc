#include "zarnel/mutex.h"

#include "zarnel/msgq.h"

#include <cerrno>
#include <pthread.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr int kOptions = ZN_SEM_Q_PRIORITY | ZN_SEM_DELETE_SAFE | ZN_SEM_INVERSION_SAFE;

struct Result {
    STATUS status;
    int err;
};

// Takes the mutex on another thread and returns the result.
template <class Call> Result elsewhere(Call call)
{
    Result result = {OK, 0};
    std::thread([&] {
        errno = 0;
        result.status = call();
        result.err = errno;
    }).join();
    return result;
}

bool cancellable()
{
    int state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    int ignored;
    pthread_setcancelstate(state, &ignored);
    return state == PTHREAD_CANCEL_ENABLE;
}

TEST(Mutex, OwnerTakesItAgainAndFreesItWithTheLastGive)
{
    SEM_ID mutex = znMutexCreate(kOptions);
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(znMutexTake(mutex, ZN_WAIT_FOREVER), OK);
    EXPECT_EQ(znMutexTake(mutex, ZN_NO_WAIT), OK);
    EXPECT_EQ(znMutexTake(mutex, 1), OK);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(elsewhere([&] { return znMutexTake(mutex, ZN_NO_WAIT); }).err, EBUSY);
        EXPECT_EQ(znMutexGive(mutex), OK);
    }
    EXPECT_EQ(elsewhere([&] {
                  return znMutexTake(mutex, ZN_NO_WAIT) == OK ? znMutexGive(mutex) : ERROR;
              }).status,
              OK);
    EXPECT_EQ(znMutexDelete(mutex), OK);
}

TEST(Mutex, TakingAnotherTasksMutexWithoutWaitingFailsWithEBUSY)
{
    SEM_ID mutex = znMutexCreate(kOptions);
    ASSERT_EQ(znMutexTake(mutex, ZN_WAIT_FOREVER), OK);
    const Result other = elsewhere([&] { return znMutexTake(mutex, ZN_NO_WAIT); });
    EXPECT_EQ(other.status, ERROR);
    EXPECT_EQ(other.err, EBUSY);
    EXPECT_EQ(znMutexDelete(mutex), OK);
}

TEST(Mutex, TimedTakeOfAnOwnedMutexFailsWithETIMEDOUT)
{
    SEM_ID mutex = znMutexCreate(kOptions);
    ASSERT_EQ(znMutexTake(mutex, ZN_WAIT_FOREVER), OK);
    const Result other = elsewhere([&] { return znMutexTake(mutex, 2); });
    EXPECT_EQ(other.status, ERROR);
    EXPECT_EQ(other.err, ETIMEDOUT);
    EXPECT_EQ(znMutexDelete(mutex), OK);
}

TEST(Mutex, WaitingTaskGetsTheMutexWhenItIsGiven)
{
    SEM_ID mutex = znMutexCreate(kOptions);
    int guarded = 0;
    ASSERT_EQ(znMutexTake(mutex, ZN_WAIT_FOREVER), OK);
    std::vector<std::thread> tasks;
    for (const int timeout : {ZN_WAIT_FOREVER, 100 * 3600})
        tasks.emplace_back([&, timeout] {
            for (int i = 0; i < 1000; ++i) {
                ASSERT_EQ(znMutexTake(mutex, timeout), OK);
                ++guarded;
                ASSERT_EQ(znMutexGive(mutex), OK);
            }
        });
    EXPECT_EQ(guarded, 0);
    EXPECT_EQ(znMutexGive(mutex), OK);
    for (std::thread& task : tasks)
        task.join();
    EXPECT_EQ(guarded, 2000);
    EXPECT_EQ(znMutexDelete(mutex), OK);
}

TEST(Mutex, GivingWhatTheCallerDoesNotOwnFailsWithEPERM)
{
    SEM_ID mutex = znMutexCreate(kOptions);
    errno = 0;
    EXPECT_EQ(znMutexGive(mutex), ERROR);
    EXPECT_EQ(errno, EPERM);
    ASSERT_EQ(znMutexTake(mutex, ZN_WAIT_FOREVER), OK);
    EXPECT_EQ(elsewhere([&] { return znMutexGive(mutex); }).err, EPERM);
    EXPECT_EQ(znMutexGive(mutex), OK);
    EXPECT_EQ(znMutexDelete(mutex), OK);
}

TEST(Mutex, OwnerIsSafeFromDeletionUntilTheLastGive)
{
    SEM_ID mutex = znMutexCreate(kOptions);
    ASSERT_EQ(znMutexTake(mutex, ZN_WAIT_FOREVER), OK);
    ASSERT_EQ(znMutexTake(mutex, ZN_WAIT_FOREVER), OK);
    EXPECT_FALSE(cancellable());
    EXPECT_EQ(znMutexGive(mutex), OK);
    EXPECT_FALSE(cancellable());
    EXPECT_EQ(znMutexGive(mutex), OK);
    EXPECT_TRUE(cancellable());
    EXPECT_EQ(znMutexDelete(mutex), OK);
}

TEST(Mutex, FailedTakeLeavesTheTaskDeletable)
{
    SEM_ID mutex = znMutexCreate(kOptions);
    ASSERT_EQ(znMutexTake(mutex, ZN_WAIT_FOREVER), OK);
    bool deletable = false;
    std::thread([&] {
        EXPECT_EQ(znMutexTake(mutex, ZN_NO_WAIT), ERROR);
        EXPECT_EQ(znMutexTake(mutex, 1), ERROR);
        deletable = cancellable();
    }).join();
    EXPECT_TRUE(deletable);
    EXPECT_EQ(znMutexDelete(mutex), OK);
}

TEST(Mutex, DeletingAnOwnedMutexGivesItBackFully)
{
    SEM_ID mutex = znMutexCreate(kOptions);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(znMutexTake(mutex, ZN_WAIT_FOREVER), OK);
    EXPECT_EQ(znMutexDelete(mutex), OK);
    EXPECT_TRUE(cancellable());
}

TEST(Mutex, DeletingAnotherTasksMutexFailsWithEBUSY)
{
    SEM_ID mutex = znMutexCreate(kOptions);
    ASSERT_EQ(znMutexTake(mutex, ZN_WAIT_FOREVER), OK);
    EXPECT_EQ(elsewhere([&] { return znMutexDelete(mutex); }).err, EBUSY);
    EXPECT_EQ(znMutexGive(mutex), OK);
    EXPECT_EQ(elsewhere([&] { return znMutexDelete(mutex); }).status, OK);
}

TEST(Mutex, NullFailsWithEINVAL)
{
    errno = 0;
    EXPECT_EQ(znMutexTake(nullptr, ZN_NO_WAIT), ERROR);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(znMutexGive(nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(znMutexDelete(nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

TEST(Mutex, UnknownOptionFailsWithEINVAL)
{
    errno = 0;
    EXPECT_EQ(znMutexCreate(0x1000), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
