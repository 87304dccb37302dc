#include "zarnel/engine.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/owned.hpp"

namespace {

pid_t start_sleeper()
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::pause();
        ::_exit(0);
    }
    return pid;
}

TEST(EngineProcess, IsKnownByIdAndStartTime)
{
    const pid_t pid = start_sleeper();
    ZN_ENGINE_PROCESS process = znEngineProcessGet(pid);
    EXPECT_EQ(process.pid, pid);
    EXPECT_GT(process.startTime, 0U);
    EXPECT_TRUE(znEngineProcessAlive(&process));
    EXPECT_EQ(znEngineProcessSignal(&process, 0), OK);
    ZN_ENGINE_PROCESS other = process;
    other.startTime--;
    EXPECT_FALSE(znEngineProcessAlive(&other));
    EXPECT_EQ(znEngineProcessSignal(&other, SIGKILL), ERROR);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_TRUE(znEngineProcessAlive(&process));
    EXPECT_EQ(znEngineProcessSignal(&process, SIGKILL), OK);
    EXPECT_TRUE(znEngineProcessEnded(&process, 30000));
    // Not waited for yet.
    EXPECT_FALSE(znEngineProcessAlive(&process));
    EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
    EXPECT_FALSE(znEngineProcessAlive(&process));
}

TEST(EngineProcess, NonexistentProcessIsNotAlive)
{
    const ZN_ENGINE_PROCESS none = {};
    EXPECT_FALSE(znEngineProcessAlive(&none));
    EXPECT_TRUE(znEngineProcessEnded(&none, 0));
    EXPECT_EQ(znEngineProcessGet(0x3fffffff).startTime, 0U);
}

TEST(EngineStart, WithoutAContainerThereIsNothingToStart)
{
    const znc::UniqueFd directory(::open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::array<char, ZN_ENGINE_REASON_MAX> reason{};
    const ZN_ENGINE_PROCESS self = znEngineProcessGet(::getpid());
    EXPECT_FALSE(znEngineWaits(directory.get()));
    EXPECT_EQ(znEngineStart(&self, directory.get(), nullptr, reason.data(), reason.size()), ERROR);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_STRNE(reason.data(), "");
}

TEST(EngineGroup, MissingGroupIsAnErrorExceptForRemoval)
{
    BOOL frozen = FALSE;
    EXPECT_EQ(znEngineGroupFrozen("/zncrun/no-such-group", &frozen), ERROR);
    EXPECT_EQ(znEngineGroupSignal("/zncrun/no-such-group", SIGKILL), ERROR);
    EXPECT_EQ(znEngineGroupRemove("/zncrun/no-such-group", "mark"), OK);
}

TEST(EngineExec, ExecInAnEndedContainerIsRefused)
{
    const ZN_ENGINE_PROCESS none = {};
    char name[] = "true";
    char* const argv[] = {name, nullptr};
    char* const envp[] = {nullptr};
    const ZN_ENGINE_PROGRAM program = {"/",   argv,    envp, 0, -1,      0,      0,
                                       FALSE, nullptr, 0,    0, nullptr, nullptr};
    std::array<char, ZN_ENGINE_REASON_MAX> reason{};
    pid_t pid = 0;
    EXPECT_EQ(znEngineExec(&none, "{}", "", &program, &pid, reason.data(), reason.size()), ERROR);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_STREQ(reason.data(), "container not running");
}

} // namespace
