// Tests of jobs that run on several processors with the same results as one after the other.
#include "zncWorkAhead.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <csignal>
#include <thread>

namespace {

constexpr std::size_t kCount = 60;

struct Row {
    std::array<std::atomic<int>, kCount> done = {};
    std::array<std::atomic<std::thread::id>, kCount> by = {};
    std::atomic<int> unblocked = 0; // number of helper threads that do not block signals

    static STATUS job(void* self, std::size_t index)
    {
        auto& row = *static_cast<Row*>(self);
        ++row.done[index];
        row.by[index] = std::this_thread::get_id();
        sigset_t mask;
        ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        if (::sigismember(&mask, SIGUSR1) == 0)
            ++row.unblocked;
        std::this_thread::yield();
        errno = static_cast<int>(1000 + index);
        return index % 7 == 3 ? ERROR : OK;
    }
};

void expect_all_results(znc::WorkAhead& work)
{
    for (std::size_t i = 0; i < kCount; i++) {
        EXPECT_EQ(work.result(i), i % 7 == 3 ? ERROR : OK) << i;
        if (i % 7 == 3) {
            EXPECT_EQ(errno, static_cast<int>(1000 + i));
        }
    }
}

TEST(WorkAhead, ResultsAndErrorNumbersAreThoseOfASequentialRun)
{
    for (int round = 0; round < 50; round++) {
        Row row;
        znc::WorkAhead work(Row::job, &row, kCount);
        work.start();
        expect_all_results(work);
        for (std::size_t i = 0; i < kCount; i++)
            EXPECT_EQ(row.done[i], 1) << i;
    }
}

TEST(WorkAhead, WithoutStartJobsRunInResult)
{
    Row row;
    znc::WorkAhead work(Row::job, &row, kCount);
    EXPECT_EQ(work.result(0), OK);
    EXPECT_EQ(row.done[0], 1);
    EXPECT_EQ(row.done[kCount - 1], 0);
    expect_all_results(work);
}

TEST(WorkAhead, ExcludedJobsRunOnlyInTheCaller)
{
    Row row;
    znc::WorkAhead work(Row::job, &row, kCount);
    for (std::size_t i = 0; i < kCount; i += 2)
        work.exclude(i);
    work.start();
    expect_all_results(work);
    for (std::size_t i = 0; i < kCount; i += 2)
        EXPECT_EQ(row.by[i].load(), std::this_thread::get_id()) << i;
}

TEST(WorkAhead, HelpersTakeNoSignalsAndTheCallersMaskStays)
{
    sigset_t before;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &before);
    ASSERT_EQ(::sigismember(&before, SIGUSR1), 0);
    Row row;
    znc::WorkAhead work(Row::job, &row, kCount);
    work.start();
    expect_all_results(work);
    int mine = 0;
    for (const auto& by : row.by)
        mine += by.load() == std::this_thread::get_id() ? 1 : 0;
    EXPECT_EQ(row.unblocked, mine);
    sigset_t after;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(::sigismember(&after, SIGUSR1), 0);
}

TEST(WorkAhead, DestructionWaitsForRunningJobsAndPreservesErrno)
{
    for (int round = 0; round < 50; round++) {
        Row row; // destroyed after the jobs: a sanitizer detects a job that is still running
        znc::WorkAhead work(Row::job, &row, kCount);
        work.start();
        EXPECT_EQ(work.result(3), ERROR);
        EXPECT_EQ(errno, 1003);
    }
}

} // namespace
