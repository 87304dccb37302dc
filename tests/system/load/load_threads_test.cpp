// Tests of creating namespaces and starting programs from a busy process: with many threads that
// allocate memory, and with a timer that interrupts faster than a process can be cloned.
//
// LOAD_SPAWNS and LOAD_CREATES set the size.
#include "namespace_world.hpp"
#include "test_size.hpp"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sys/time.h>

using namespace namespace_world;
using system_world::size_of;

namespace {

// Threads that allocate and free memory during the lifetime of this object.
class Allocators {
  public:
    explicit Allocators(int count)
    {
        for (int i = 0; i < count; i++)
            threads_.emplace_back([this, i] { allocate(static_cast<unsigned>(i)); });
    }
    ~Allocators()
    {
        stop_ = true;
        for (std::thread& thread : threads_)
            thread.join();
    }
    Allocators(const Allocators&) = delete;
    Allocators& operator=(const Allocators&) = delete;

    [[nodiscard]] long rounds() const { return rounds_; }

  private:
    void allocate(unsigned seed)
    {
        std::array<void*, 16> held = {};
        while (!stop_) {
            seed = seed * 1103515245 + 12345;
            void*& slot = held[(seed >> 16) % held.size()];
            std::free(slot);
            slot = std::malloc(1 + (seed >> 8) % 5000);
            if (++rounds_ % 32 == 0) // leaves processor time to the threads that start programs
                std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        for (void* slot : held)
            std::free(slot);
    }

    std::atomic<bool> stop_ = false;
    std::atomic<long> rounds_ = 0;
    std::vector<std::thread> threads_;
};

TEST_F(Namespaces, ProgramsStartWhileSixtyFourThreadsAllocate)
{
    constexpr int kStarters = 4;
    const int spawns = size_of("LOAD_SPAWNS", 100) / kStarters;
    const nsid_t ns = rooted();
    {
        const Allocators allocators(64);
        EXPECT_EQ(programs_run_by_threads(ns, kStarters, spawns), kStarters * spawns);
        EXPECT_GT(allocators.rounds(), 0);
    }
    EXPECT_EQ(znnsDelete(ns), OK);
}

std::atomic<long> g_interruptions = 0;

// Interrupts this process every 100 microseconds; the kernel restarts no system calls.
class Interrupter {
  public:
    Interrupter()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) { g_interruptions++; };
        ::sigaction(SIGALRM, &action, &before_);
        set_period(100);
    }
    ~Interrupter()
    {
        set_period(0);
        ::sigaction(SIGALRM, &before_, nullptr);
    }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

  private:
    static void set_period(suseconds_t microseconds)
    {
        const struct itimerval period = {{0, microseconds}, {0, microseconds}};
        ::setitimer(ITIMER_REAL, &period, nullptr);
    }
    struct sigaction before_ = {};
};

int uninterrupted_wait(pid_t pid)
{
    int status = -1;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

TEST_F(Namespaces, AreMadeAndEndedUnderATimerOfAHundredMicroseconds)
{
    const int creates = size_of("LOAD_CREATES", 200);
    const long before = g_interruptions;
    {
        const Interrupter interrupter;
        for (int i = 0; i < creates; i++) {
            const nsid_t ns = rooted();
            ASSERT_GE(ns, 0) << i << ": " << std::strerror(errno);
            znSpawnAttr attr;
            znSpawnAttrInit(&attr);
            znSpawnAttrSetNamespace(&attr, ns);
            std::array<char*, 2> argv = {const_cast<char*>("true"), nullptr};
            pid_t pid = -1;
            ASSERT_EQ(znSpawn(&pid, (root_ + "/bin/true").c_str(), &attr, argv.data(), nullptr), OK)
                << i << ": " << std::strerror(errno);
            EXPECT_EQ(uninterrupted_wait(pid), 0);
            ASSERT_EQ(znnsDelete(ns), OK) << i << ": " << std::strerror(errno);
        }
    }
    EXPECT_GT(g_interruptions - before, creates);
}

} // namespace
