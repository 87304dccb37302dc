#include "msgq_line.hpp"

#include "base/owned.hpp"
#include "eventually.hpp"
#include "platform/common/clock.hpp"
#include "test_tree.hpp"
#include "zarnel/msgq.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

constexpr key_t kRootsLine = 0x7a6e0000;

std::int64_t in_seconds(int seconds)
{
    return zn::now_ns() + seconds * zn::kNsPerSec;
}

// A thread; the test can wait until it sleeps.
class Waiter {
  public:
    template <class F>
    explicit Waiter(F work)
        : thread_([this, work] {
              tid_ = ::gettid();
              work();
          })
    {
    }
    ~Waiter() { thread_.join(); }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

    [[nodiscard]] bool asleep() const
    {
        if (tid_ == 0)
            return false;
        const std::string call =
            test_tree::read_file("/proc/self/task/" + std::to_string(tid_) + "/syscall");
        return call.starts_with(std::to_string(SYS_semtimedop) + " ");
    }

  private:
    std::atomic<pid_t> tid_ = 0;
    std::thread thread_;
};

class QueueLine : public testing::Test {
  protected:
    void TearDown() override
    {
        EXPECT_FALSE(zn::queue_line_is_taken());
        EXPECT_LT(::semget(kRootsLine, 0, 0), 0) << "the line was left behind";
    }
};

TEST_F(QueueLine, TurnsComeInTheOrderOfArrival)
{
    constexpr int kWaiters = 20;
    std::mutex mutex;
    std::vector<int> order;
    {
        std::vector<std::unique_ptr<Waiter>> waiters;
        zn::QueueLinePlace head(false);
        head.wait_turn(in_seconds(60));
        for (int i = 0; i < kWaiters; i++) {
            waiters.push_back(std::make_unique<Waiter>([&, i] {
                zn::QueueLinePlace place(false);
                place.wait_turn(in_seconds(60));
                const std::lock_guard lock(mutex);
                order.push_back(i);
            }));
            EXPECT_TRUE(eventually([&] { return waiters.back()->asleep(); }));
        }
        EXPECT_TRUE(zn::queue_line_is_taken());
        const std::lock_guard lock(mutex);
        EXPECT_TRUE(order.empty());
    }
    ASSERT_EQ(order.size(), static_cast<std::size_t>(kWaiters));
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(QueueLine, ACallerWithAQueueGoesBeforeOneWithout)
{
    std::atomic<bool> passed = false;
    zn::QueueLinePlace head(false);
    head.wait_turn(in_seconds(60));
    auto first = std::make_unique<zn::QueueLinePlace>(true);
    first->wait_turn(in_seconds(60)); // does not block
    const Waiter trier([&] {
        head.wait_turn(in_seconds(60));
        passed = true;
    });
    EXPECT_TRUE(eventually([&] { return trier.asleep(); }));
    EXPECT_FALSE(passed);
    first.reset();
    EXPECT_TRUE(eventually([&] { return passed.load(); }));
}

TEST_F(QueueLine, ACallerThatDiesLeavesIt)
{
    int ready[2];
    ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        zn::QueueLinePlace place(false);
        place.wait_turn(in_seconds(60));
        static_cast<void>(::write(ready[1], "x", 1) == 1);
        for (;;)
            ::pause();
    }
    char byte;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    EXPECT_TRUE(zn::queue_line_is_taken());
    ::kill(child, SIGKILL);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_FALSE(zn::queue_line_is_taken());
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST_F(QueueLine, AWaitThatTimesOutLeavesTheLine)
{
    zn::QueueLinePlace head(false);
    head.wait_turn(in_seconds(60));
    {
        zn::QueueLinePlace late(false);
        late.wait_turn(zn::now_ns());
        const Waiter other([] {
            zn::QueueLinePlace place(false);
            errno = EBADF;
            place.wait_turn(zn::now_ns() + zn::kNsPerSec / 100);
            EXPECT_EQ(errno, EBADF) << "waiting changed the task's number";
        });
    }
    EXPECT_TRUE(zn::queue_line_is_taken());
}

// A process of another user creates a semaphore set with the same key and never releases it.
int another_users_line(bool givenToRoot)
{
    const pid_t child = ::fork();
    if (child == 0) {
        struct sembuf taken = {0, 1, 0};
        int line = -1;
        if (::seteuid(65534) == 0)
            line = ::semget(kRootsLine, 2, IPC_CREAT | IPC_EXCL | 0666);
        bool done = line >= 0 && ::semop(line, &taken, 1) == 0;
        struct semid_ds about = {};
        about.sem_perm.mode = 0600;
        if (givenToRoot)
            done = done && ::semctl(line, 0, IPC_SET, &about) == 0;
        ::_exit(done ? 0 : 1);
    }
    int status = -1;
    if (::waitpid(child, &status, 0) != child || status != 0)
        return -1;
    return ::semget(kRootsLine, 0, 0);
}

TEST_F(QueueLine, AnotherUsersLineIsNotUsed)
{
    ASSERT_EQ(::geteuid(), 0U);
    const int line = another_users_line(false);
    ASSERT_GE(line, 0);
    EXPECT_FALSE(zn::queue_line_is_taken());
    zn::QueueLinePlace place(false);
    place.wait_turn(INT64_MAX);
    ASSERT_EQ(::semctl(line, 0, IPC_RMID), 0);
}

TEST_F(QueueLine, ALineThatAnotherUserCreatedAndGaveAwayIsNotUsed)
{
    ASSERT_EQ(::geteuid(), 0U);
    const int line = another_users_line(true);
    ASSERT_GE(line, 0);
    struct semid_ds about = {};
    ASSERT_EQ(::semctl(line, 0, IPC_STAT, &about), 0);
    ASSERT_EQ(about.sem_perm.uid, 0U);
    EXPECT_FALSE(zn::queue_line_is_taken());
    zn::QueueLinePlace place(false);
    place.wait_turn(in_seconds(5));
    EXPECT_EQ(::semctl(line, 0, GETNCNT), 0);
    EXPECT_EQ(::semctl(line, 0, GETVAL), 1);
    ASSERT_EQ(::semctl(line, 0, IPC_RMID), 0);
}

// Creates queues in `tasks` threads of this process, which at first has no queue memory left.
int created_by_threads(int tasks)
{
    struct rlimit old = {};
    ::getrlimit(RLIMIT_MSGQUEUE, &old);
    struct rlimit none = old;
    none.rlim_cur = 1;
    ::setrlimit(RLIMIT_MSGQUEUE, &none);
    std::atomic<int> made = 0;
    {
        std::vector<std::unique_ptr<Waiter>> waiters;
        for (int i = 0; i < tasks; i++)
            waiters.push_back(std::make_unique<Waiter>([&made, i] {
                const std::string name = "/znq-line-" + std::to_string(i);
                const MSG_Q_ID q = znMsgQOpen(name.c_str(), 1, 64, 0, ZN_MSG_Q_CREATE_EXCLUSIVE);
                if (q < 0)
                    return;
                made++;
                znMsgQClose(q);
                znMsgQUnlink(name.c_str());
            }));
        EXPECT_TRUE(eventually(zn::queue_line_is_taken));
        ::setrlimit(RLIMIT_MSGQUEUE, &old);
    }
    return made;
}

TEST_F(QueueLine, EveryCallerInItGetsItsQueueOnceThereIsMemory)
{
    EXPECT_EQ(created_by_threads(50), 50);
}

} // namespace
