#include "cli/containers/at_once.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

namespace {

using zncctl::for_each_at_once;

TEST(ForEachAtOnce, CallsOnceForEachIndex)
{
    for (const std::size_t count : {0U, 1U, 7U, 8U, 16U, 1000U}) {
        std::vector<std::atomic<int>> calls(count);
        for_each_at_once(count, [&](std::size_t index) { ++calls[index]; });
        for (std::size_t index = 0; index < count; index++)
            EXPECT_EQ(calls[index], 1) << index << " of " << count;
    }
}

// Each call waits until another thread is in one, too.
TEST(ForEachAtOnce, ManyElementsAreSharedByThreads)
{
    std::mutex mutex;
    std::condition_variable changed;
    std::set<std::thread::id> threads;
    bool waited_in_vain = false;
    for_each_at_once(100, [&](std::size_t /*index*/) {
        std::unique_lock lock(mutex);
        threads.insert(std::this_thread::get_id());
        changed.notify_all();
        waited_in_vain = waited_in_vain || !changed.wait_for(lock, std::chrono::seconds(60),
                                                             [&] { return threads.size() >= 2; });
    });
    EXPECT_FALSE(waited_in_vain);
}

TEST(ForEachAtOnce, FewElementsTakeNoOtherThread)
{
    std::set<std::thread::id> threads;
    for_each_at_once(8, [&](std::size_t /*index*/) { threads.insert(std::this_thread::get_id()); });
    EXPECT_EQ(threads, std::set<std::thread::id>{std::this_thread::get_id()});
}

TEST(ForEachAtOnce, ThrowsAfterTheLastCallWhatACallThrew)
{
    std::atomic<int> active = 0;
    const auto act = [&](std::size_t index) {
        ++active;
        std::this_thread::yield();
        --active;
        if (index == 50)
            throw std::runtime_error("one failed");
    };
    EXPECT_THROW(for_each_at_once(100, act), std::runtime_error);
    EXPECT_EQ(active, 0);
}

} // namespace
