// Tests of stopping the daemon in every situation: the current request is answered, all containers
// end, nothing is left, and the exit status is 0. Also tests of deleting containers that resist.

#include "client_group.hpp"
#include "daemon_world.hpp"
#include "raw_client.hpp"

#include <cerrno>
#include <sys/wait.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

class Stop : public DaemonWorld {
  protected:
    void SetUp() override
    {
        DaemonWorld::SetUp();
        EXPECT_EQ(stop_daemon(SIGTERM), 0); // its storage area is kept
        without_daemon_ = Ledger::take(kStorage, ::getpid());
        start_daemon();
    }

    // Except for what every daemon leaves, such as its storage area.
    void expect_nothing_left() const
    {
        EXPECT_EQ(Ledger::take(kStorage, ::getpid()).compared_with(without_daemon_), "");
        EXPECT_FALSE(zncDaemonIsAlive());
    }

  private:
    Ledger without_daemon_;
};

// Waits for a child other than the daemon, which must have been killed.
void wait_for_killed_child()
{
    int status = 0;
    ASSERT_GT(::waitpid(-1, &status, 0), 0);
    EXPECT_TRUE(WIFSIGNALED(status)) << std::hex << status;
    EXPECT_EQ(WTERMSIG(status), SIGKILL) << std::hex << status;
}

// A client that creates and deletes containers until the daemon has ended. Each call must succeed,
// or fail because the daemon has ended.
int work_until_stopped(int number)
{
    const std::string id = "client" + std::to_string(number);
    const auto is_gone = [] { return errno == S_zncLib_DAEMON_NOT_RUNNING || errno == 0; };
    for (;;) {
        if (zncCreate(id.c_str(), "/tmp/bundle", 0, nullptr) != OK)
            return is_gone() ? 0 : 1;
        if (zncDelete(id.c_str(), 0) != OK)
            return is_gone() ? 0 : 2;
    }
}

class StopSignals : public Stop {
  protected:
    [[nodiscard]] int stop_signal() const { return GetParam() ? SIGINT : SIGTERM; }
};
INSTANTIATE_TEST_SUITE_P(Host, StopSignals, testing::Values(false, true),
                         [](const auto& interrupt) { return interrupt.param ? "INT" : "TERM"; });

TEST_P(StopSignals, StopDuringRequestsLeavesNothing)
{
    ClientGroup clients(16, work_until_stopped);
    // the clients are running
    EXPECT_TRUE(eventually([] { return fs::exists("/overlay/client3"); }));
    EXPECT_EQ(stop_daemon(stop_signal()), 0);
    EXPECT_EQ(clients.wait(), std::vector<int>(16, 0));
    expect_nothing_left();
}

TEST_P(StopSignals, FinishesAndAnswersTheCurrentRequest)
{
    constexpr std::size_t kLength = 60000;
    make_bundle(kBundle, {"/bin/true"},
                R"(,"annotations":{"long":")" + std::string(kLength, 'x') + R"("})");
    ASSERT_EQ(zncCreate("long", kBundle, 0, nullptr), OK);
    {
        const raw_client::Call call(0);
        const raw_client::Call next(1);
        call.send(ZNC_INSPECT, R"({"Id":"long"})");
        next.send(ZNC_ALIVE, "{}");
        bool first = true;
        const std::string text = call.reply([&] {
            if (!first)
                ::kill(daemon(), stop_signal()); // during every piece after the first
            first = false;
        });
        EXPECT_GT(text.size(), kLength);
        EXPECT_EQ(stop_daemon(stop_signal()), 0);
        EXPECT_EQ(next.reply_now(), "") << "a request that waited was served after the stop";
    }
    expect_nothing_left();
}

TEST_F(Stop, EndsAHundredRunningContainers)
{
    constexpr int kContainers = 100;
    make_bundle(kBundle, {"/bin/sleep", "1000"});
    for (int i = 0; i < kContainers; i++) {
        const std::string id = "running" + std::to_string(i);
        ASSERT_EQ(zncCreate(id.c_str(), kBundle, 0, nullptr), OK) << std::hex << errno;
        ASSERT_EQ(zncStart(id.c_str(), ZNC_OPT_NO_WAIT), OK) << std::hex << errno;
    }
    const pid_t stopping = daemon();
    int killed = 0;
    {
        // The test is the parent of both the daemon and the containers' programs, and waits for
        // each.
        ::kill(stopping, SIGTERM);
        ::kill(stopping, SIGINT); // a second signal has no effect
        while (killed < kContainers) {
            int status = 0;
            const pid_t ended = ::waitpid(-1, &status, 0);
            ASSERT_GT(ended, 0);
            ASSERT_NE(ended, stopping) << "the daemon ended before its containers";
            killed += WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL ? 1 : 0;
        }
    }
    EXPECT_EQ(stop_daemon(SIGTERM), 0);
    EXPECT_EQ(killed, kContainers);
    expect_nothing_left();
}

// Every process ignores all signals that can be ignored.
const std::vector<std::string> kDeaf = {
    "/bin/sh", "-c",
    "i=1; while [ $i -lt 65 ]; do trap '' $i 2>/dev/null; i=$((i+1)); done; "
    "sleep 1000 & touch /ready; while :; do sleep 1; done"};

void start_deaf(const char* bundle)
{
    make_bundle(bundle, kDeaf);
    ASSERT_EQ(zncCreate("deaf", bundle, 0, nullptr), OK) << std::hex << errno;
    ASSERT_EQ(zncStart("deaf", ZNC_OPT_NO_WAIT), OK) << std::hex << errno;
    ASSERT_TRUE(eventually([] { return fs::exists("/overlay/deaf/ready"); }));
    for (const char* name :
         {"HUP", "INT", "QUIT", "ILL", "TRAP", "ABRT", "FPE", "BUS", "SEGV", "PIPE", "ALRM", "TERM",
          "TSTP", "CONT", "CHLD", "TTIN", "TTOU", "USR1", "USR2"})
        EXPECT_EQ(zncKill("deaf", zncUtilSignalNo(name), ZNC_OPT_WHOLE_NAMESPACE), OK) << name;
    EXPECT_EQ(zncStatusGet("deaf"), STATE_RUNNING);
}

TEST_F(Stop, EndsAContainerThatIgnoresEverySignalItCan)
{
    start_deaf(kBundle);
    ::kill(daemon(), SIGTERM);
    wait_for_killed_child();
    EXPECT_EQ(stop_daemon(SIGTERM), 0);
    expect_nothing_left();
}

// The clients that started the programs exited without waiting, so the programs have another
// parent.
TEST_F(Stop, EndsContainersWhoseClientsAreGone)
{
    make_bundle(kBundle, {"/bin/sleep", "1000"});
    ClientGroup clients(5, [](int number) {
        const std::string id = "left" + std::to_string(number);
        return zncCreate(id.c_str(), kBundle, 0, nullptr) == OK &&
                       zncStart(id.c_str(), ZNC_OPT_NO_WAIT) == OK
                   ? 0
                   : 1;
    });
    EXPECT_EQ(clients.wait(), std::vector<int>(5, 0));
    EXPECT_EQ(zncStatusGet("left4"), STATE_RUNNING);
    EXPECT_EQ(stop_daemon(SIGTERM), 0);
    expect_nothing_left();
}

class Delete : public DaemonWorld {};

TEST_F(Delete, EndsAContainerThatIgnoresEverySignalItCan)
{
    start_deaf(kBundle);
    EXPECT_EQ(zncDelete("deaf", ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
    wait_for_killed_child();
}

TEST_F(Delete, EndsAContainerWhoseProcessesAreStopped)
{
    make_bundle(kBundle, {"/bin/sh", "-c", "sleep 1000 & touch /ready; wait"});
    ASSERT_EQ(zncCreate("frozen", kBundle, 0, nullptr), OK);
    ASSERT_EQ(zncStart("frozen", ZNC_OPT_NO_WAIT), OK);
    ASSERT_TRUE(eventually([] { return fs::exists("/overlay/frozen/ready"); }));
    ASSERT_EQ(zncKill("frozen", 17, ZNC_OPT_WHOLE_NAMESPACE), OK); // STOP
    int status = 0;
    ASSERT_GT(::waitpid(-1, &status, WUNTRACED), 0);
    ASSERT_TRUE(WIFSTOPPED(status));
    EXPECT_EQ(zncStatusGet("frozen"), STATE_RUNNING);
    EXPECT_EQ(zncDelete("frozen", ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
    wait_for_killed_child();
}

// Each process forks its successor and exits before a signal can reach it.
TEST_F(Delete, EndsAContainerThatForksAllTheTime)
{
    make_bundle(kBundle, {"/bin/sh", "-c",
                          "chain() { ( chain & ) ; exit; }; chain & chain & touch /ready; "
                          "while :; do true & done"});
    ASSERT_EQ(zncCreate("forks", kBundle, 0, nullptr), OK);
    ASSERT_EQ(zncStart("forks", ZNC_OPT_NO_WAIT), OK);
    ASSERT_TRUE(eventually([] { return fs::exists("/overlay/forks/ready"); }));
    EXPECT_EQ(zncDelete("forks", ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
    wait_for_killed_child();
}

} // namespace
