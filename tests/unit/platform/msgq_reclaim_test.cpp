// Tests of queues left by dead processes, and of queues that only look like those.
#include "zarnel/msgq.h"

#include "base/owned.hpp"
#include "zncRuntimeService.hpp"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mqueue.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

std::string client_queue(pid_t pid, int number = 0, const char* suffix = "")
{
    return "/znc-u-" + std::to_string(pid) + "-" + std::to_string(number) + suffix;
}

bool exists(const std::string& name)
{
    return znc::UniqueFd(mq_open(name.c_str(), O_RDONLY | O_CLOEXEC)).get() >= 0;
}

MSG_Q_ID make(const std::string& name)
{
    return znMsgQOpen(name.c_str(), 1, 64, 0, ZN_MSG_Q_CREATE_EXCLUSIVE);
}

int reclaim()
{
    return znMsgQReclaim(znc::client_of_queue);
}

// Runs `body` with the child's process id in a child that then waits to be killed.
class Client {
  public:
    template <class Body> explicit Client(Body body)
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            body(::getpid());
            static_cast<void>(::write(ends[1], "r", 1));
            for (;;)
                ::pause();
        }
        ::close(ends[1]);
        char ready = 0;
        EXPECT_EQ(::read(ends[0], &ready, 1), 1);
        ::close(ends[0]);
    }
    ~Client() { die(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    void become_zombie()
    {
        ::kill(pid_, SIGKILL);
        siginfo_t info;
        ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    }
    void die()
    {
        if (reaped_)
            return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        reaped_ = true;
    }

  private:
    pid_t pid_ = -1;
    bool reaped_ = false;
};

// Returns the id of a process that has ended.
pid_t gone_pid()
{
    Client client([](pid_t) {});
    client.die();
    return client.pid();
}

class QueueGuard {
  public:
    explicit QueueGuard(std::string name) : name_(std::move(name)) {}
    ~QueueGuard() { znMsgQUnlink(name_.c_str()); }
    QueueGuard(const QueueGuard&) = delete;
    QueueGuard& operator=(const QueueGuard&) = delete;

  private:
    std::string name_;
};

TEST(QueueReclaim, BothQueuesOfAKilledClientAreRemoved)
{
    Client client([](pid_t pid) {
        make(client_queue(pid));
        make(client_queue(pid, 0, "_info"));
    });
    const std::string reply = client_queue(client.pid());
    EXPECT_EQ(reclaim(), 0);
    EXPECT_TRUE(exists(reply));
    client.die();
    EXPECT_EQ(reclaim(), 2);
    EXPECT_FALSE(exists(reply));
    EXPECT_FALSE(exists(reply + "_info"));
}

TEST(QueueReclaim, AnUnreapedClientCountsAsDead)
{
    Client client([](pid_t pid) { make(client_queue(pid)); });
    client.become_zombie();
    EXPECT_EQ(reclaim(), 1);
    EXPECT_FALSE(exists(client_queue(client.pid())));
}

// Like a client in another PID namespace: its process id has no meaning here.
TEST(QueueReclaim, AQueueThatItsCreatorHasOpenStaysWhateverItsProcessId)
{
    const std::string name = client_queue(gone_pid());
    const QueueGuard guard(name);
    const znc::UniqueFd queue(make(name));
    ASSERT_TRUE(queue);
    EXPECT_EQ(reclaim(), 0);
    EXPECT_TRUE(exists(name));
}

TEST(QueueReclaim, AQueueThatAForkOfItsCreatorHasOpenStays)
{
    const std::string name = client_queue(gone_pid());
    const QueueGuard guard(name);
    znc::UniqueFd queue(make(name));
    Client child([](pid_t) {});
    queue.reset();
    EXPECT_EQ(reclaim(), 0);
    child.die();
    EXPECT_EQ(reclaim(), 1);
}

// Created by a program that does not use the lock, or whose process id has been reused.
TEST(QueueReclaim, AQueueWhoseProcessLivesStaysEvenIfNoProcessHasItOpen)
{
    const std::string name = client_queue(::getpid());
    const QueueGuard guard(name);
    ASSERT_TRUE(znc::UniqueFd(make(name)));
    EXPECT_EQ(reclaim(), 0);
    EXPECT_TRUE(exists(name));
}

TEST(QueueReclaim, AnOpenHandleOfTheDaemonDoesNotKeepADeadClientsQueue)
{
    Client client([](pid_t pid) { make(client_queue(pid)); });
    const std::string name = client_queue(client.pid());
    const znc::UniqueFd daemon(znMsgQOpen(name.c_str(), 0, 0, 0, ZN_MSG_Q_OPEN_EXISTING));
    ASSERT_TRUE(daemon);
    client.die();
    EXPECT_EQ(reclaim(), 1);
}

TEST(QueueReclaim, OnlyNamesOfClientsAreTouched)
{
    const std::string pid = std::to_string(gone_pid());
    const std::vector<std::string> names = {"/znc",
                                            "/other-" + pid,
                                            "/znc-u-" + pid,
                                            "/znc-u-" + pid + "-",
                                            "/znc-u-" + pid + "-1x",
                                            "/znc-u-" + pid + "-1_infos",
                                            "/znc-u-0-1",
                                            "/znc-u-99999999999999999999-1",
                                            "/xznc-u-" + pid + "-1",
                                            "/zn-probe-" + pid,
                                            "/zn-probe-" + pid + "-1-2"};
    for (const std::string& name : names) {
        const QueueGuard guard(name);
        ASSERT_TRUE(znc::UniqueFd(make(name))) << name;
        EXPECT_EQ(reclaim(), 0) << name;
        EXPECT_TRUE(exists(name)) << name;
    }
}

TEST(QueueReclaim, AnotherUsersQueueStays)
{
    const std::string name = client_queue(gone_pid());
    const QueueGuard guard(name);
    const znc::UniqueFd queue(mq_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666, nullptr));
    ASSERT_TRUE(queue);
    ASSERT_EQ(::fchown(queue.get(), 65534, 65534), 0);
    EXPECT_EQ(reclaim(), 0);
    EXPECT_TRUE(exists(name));
}

TEST(QueueReclaim, AProbeQueueOfADeadDaemonIsRemoved)
{
    const std::string name = "/zn-probe-" + std::to_string(gone_pid()) + "-1a2b";
    const QueueGuard guard(name);
    ASSERT_TRUE(znc::UniqueFd(make(name)));
    EXPECT_EQ(reclaim(), 1);
    EXPECT_FALSE(exists(name));
}

TEST(QueueReclaim, TheSearchLeavesNoMountsAndDescriptors)
{
    const auto descriptors = [] {
        const auto all = std::filesystem::directory_iterator("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const auto mounts = [] {
        std::ifstream in("/proc/self/mountinfo");
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    const auto open_before = descriptors();
    const std::string mounts_before = mounts();
    EXPECT_EQ(reclaim(), 0);
    EXPECT_EQ(descriptors(), open_before);
    EXPECT_EQ(mounts(), mounts_before);
}

TEST(QueueReclaim, WithoutTheRightToListQueuesItFailsAndRemovesNone)
{
    const std::string name = client_queue(gone_pid());
    const QueueGuard guard(name);
    ASSERT_TRUE(znc::UniqueFd(make(name)));
    const pid_t pid = ::fork();
    if (pid == 0) {
        const bool refused = ::setuid(65534) == 0 && reclaim() == -1 && errno == EPERM;
        ::_exit(refused ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(exists(name));
}

// Creates and reclaims queues concurrently under unused process ids: a process that created a queue
// must still find it afterwards.
TEST(QueueReclaim, AQueueIsNeverRemovedWhileItsCreatorIsCreatingIt)
{
    const pid_t gone = gone_pid();
    std::atomic<bool> stop{false};
    std::thread sweeper([&] {
        while (!stop)
            reclaim();
    });
    for (int i = 0; i < 2000; i++) {
        const std::string name = client_queue(gone, i);
        const znc::UniqueFd queue(make(name));
        ASSERT_TRUE(queue) << strerror(errno);
        EXPECT_TRUE(exists(name)) << i;
        znMsgQUnlink(name.c_str());
    }
    stop = true;
    sweeper.join();
}

} // namespace
