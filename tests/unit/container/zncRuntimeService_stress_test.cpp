// Tests with many concurrent clients of the real daemon task, with a registry of names.
#include "fake_daemon.hpp"
#include "fake_registry.hpp"
#include "running_daemon.hpp"
#include "zncOwned.hpp"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kClients = 16;
constexpr int kRounds = 40;

// Runs the life cycle of a container of its own; returns the number of calls with a wrong result.
int live(const std::string& id)
{
    int wrong = 0;
    const auto expect = [&wrong](bool right) { wrong += right ? 0 : 1; };
    for (int i = 0; i < kRounds; i++) {
        expect(zncCreate(id.c_str(), "/bundle", 0, nullptr) == OK);
        const znc::MallocPtr<char> state(zncState(id.c_str()));
        const std::string expected =
            R"({"ociVersion":"1.0.2","id":")" + id + R"(","status":1,"bundle":"/bundle"})";
        expect(state != nullptr && expected == state.get());
        const znc::MallocPtr<char> list(zncList());
        expect(list != nullptr &&
               std::string(list.get()).find('"' + id + '"') != std::string::npos);
        expect(zncKill(id.c_str(), 9, 0) == OK);
        expect(zncDelete(id.c_str(), 0) == OK);
        errno = 0;
        expect(zncStatusGet(id.c_str()) == STATE_UNKNOWN && errno == ENODEV);
    }
    return wrong;
}

class ServiceStress : public testing::Test {
  protected:
    void SetUp() override { fake_registry::reset(); }
    void TearDown() override
    {
        EXPECT_EQ(fake_daemon::queue_names(), std::vector<std::string>())
            << "a queue was left behind";
        char none[256] = "";
        EXPECT_EQ(zncContainerNext(none), FALSE) << "a container was left behind";
    }
};

TEST_F(ServiceStress, SixteenTasksOfOneProcessAllGetTheirAnswers)
{
    RunningDaemon daemon;
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; c++)
        clients.emplace_back([&wrong, c] { wrong += live("task" + std::to_string(c)); });
    for (std::thread& client : clients)
        client.join();
    EXPECT_EQ(wrong.load(), 0);
    daemon.stop();
}

// The clients are forked before the daemon's thread is created, and wait until it answers.
TEST_F(ServiceStress, SixteenProcessesAllGetTheirAnswers)
{
    std::vector<pid_t> clients;
    for (int c = 0; c < kClients; c++) {
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int tries = 0; tries < 10000 && zncDaemonIsAlive() != TRUE; tries++)
                usleep(1000);
            _exit(live("process" + std::to_string(c)) == 0 ? 0 : 1);
        }
        clients.push_back(pid);
    }
    RunningDaemon daemon;
    for (const pid_t pid : clients) {
        int status = -1;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0);
    }
    daemon.stop();
}

// Clients that are killed at any point of a call do not stop the daemon from serving others.
TEST_F(ServiceStress, KilledClientsDoNotStopTheDaemon)
{
    std::vector<pid_t> clients;
    for (int c = 0; c < kClients; c++) {
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (;;)
                static_cast<void>(zncStatusGet("none"));
        }
        clients.push_back(pid);
    }
    RunningDaemon daemon;
    for (const pid_t pid : clients) {
        EXPECT_EQ(zncDaemonIsAlive(), TRUE);
        kill(pid, SIGKILL);
        EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
        EXPECT_EQ(zncDaemonIsAlive(), TRUE);
    }
    daemon.stop();
    // A killed client leaves only its own two queues.
    for (const std::string& name : fake_daemon::queue_names()) {
        EXPECT_EQ(name.find("znc-u-"), 0U) << name;
        znMsgQUnlink(("/" + name).c_str());
    }
}

} // namespace
