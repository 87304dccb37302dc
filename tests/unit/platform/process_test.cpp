#include "zarnel/process.h"

#include "base/owned.hpp"
#include "eventually.hpp"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using znc::UniqueFd;

// Forks a child that runs the function and exits.
template <class Act> pid_t child(Act act)
{
    const pid_t pid = fork();
    if (pid == 0) {
        act();
        _exit(0);
    }
    return pid;
}

// Reaps the child when it has ended; returns -1 if it does not end.
int status_of(int process)
{
    int status = -1;
    EXPECT_TRUE(eventually([&] { return znProcessReap(process, &status) == OK; }));
    return status;
}

bool exists(pid_t pid)
{
    return kill(pid, 0) == 0;
}

TEST(Process, ExitCodeIsThatOfWaitpid)
{
    const UniqueFd process(znProcessOpen(child([] { _exit(77); })));
    ASSERT_TRUE(process);
    const int status = status_of(process.get());
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 77);
}

TEST(Process, SignalIsThatOfWaitpid)
{
    const UniqueFd process(znProcessOpen(child([] { raise(SIGKILL); })));
    const int status = status_of(process.get());
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST(Process, DescriptorIsClosedOnExec)
{
    const pid_t pid = child([] { pause(); });
    const UniqueFd process(znProcessOpen(pid));
    EXPECT_EQ(fcntl(process.get(), F_GETFD), FD_CLOEXEC);
    kill(pid, SIGKILL);
    status_of(process.get());
}

TEST(Process, RunningProcessIsNotReaped)
{
    const pid_t pid = child([] { pause(); });
    const UniqueFd process(znProcessOpen(pid));
    int status = 0;
    EXPECT_EQ(znProcessReap(process.get(), &status), ERROR);
    EXPECT_EQ(errno, EAGAIN);
    kill(pid, SIGKILL);
    status_of(process.get());
    EXPECT_EQ(znProcessReap(process.get(), &status), ERROR);
    EXPECT_EQ(errno, ECHILD) << "it was reaped";
}

TEST(Process, MissingProcessCannotBeOpened)
{
    const pid_t pid = child([] {});
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(znProcessOpen(pid), -1);
    EXPECT_EQ(errno, ESRCH);
}

// The child has made its parent its tracer: waitpid reports each of its stops.
TEST(Process, StopOfATracedChildIsNotItsEnd)
{
    const pid_t pid = child([] {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGUSR1);
    });
    const UniqueFd process(znProcessOpen(pid));
    siginfo_t info = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WSTOPPED | WNOWAIT), 0);
    ASSERT_EQ(info.si_code, CLD_TRAPPED);
    int status = 0;
    EXPECT_EQ(znProcessReap(process.get(), &status), ERROR);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(znProcessReapOthers(pid));
    EXPECT_EQ(znProcessReap(process.get(), &status), ERROR);
    EXPECT_TRUE(exists(pid));
    kill(pid, SIGKILL);
    EXPECT_EQ(WTERMSIG(status_of(process.get())), SIGKILL);
}

// Makes a child of this process create another child of this process, as a container's program can.
pid_t child_by_another(UniqueFd& hold)
{
    int pipes[2];
    int held[2];
    EXPECT_EQ(pipe2(pipes, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(held, O_CLOEXEC), 0);
    const UniqueFd reader(pipes[0]);
    UniqueFd writer(pipes[1]);
    const UniqueFd until(held[0]);
    hold.reset(held[1]);
    const pid_t maker = child([&] {
        hold.reset();
        const long made = syscall(SYS_clone, CLONE_PARENT, 0, 0, 0, 0);
        if (made == 0) {
            char byte;
            static_cast<void>(!read(until.get(), &byte, 1));
            _exit(0);
        }
        const pid_t pid = static_cast<pid_t>(made);
        static_cast<void>(!write(writer.get(), &pid, sizeof pid));
    });
    pid_t pid = 0;
    EXPECT_EQ(read(reader.get(), &pid, sizeof pid), static_cast<ssize_t>(sizeof pid));
    EXPECT_EQ(waitpid(maker, nullptr, 0), maker);
    return pid;
}

TEST(Process, OtherChildrenAreReapedAndTheProgramIsNot)
{
    const pid_t pid = child([] { _exit(5); });
    const UniqueFd process(znProcessOpen(pid));
    UniqueFd hold;
    const pid_t other = child_by_another(hold);
    EXPECT_FALSE(znProcessReapOthers(pid));
    EXPECT_TRUE(exists(other)) << "it runs";
    hold.reset();
    siginfo_t info = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(WEXITSTATUS(status_of(process.get())), 5);
    EXPECT_TRUE(eventually([&] {
        EXPECT_FALSE(znProcessReapOthers(0));
        return !exists(other);
    }));
}

TEST(Process, OnlyALimitedNumberIsReapedAtATime)
{
    std::vector<pid_t> pids;
    for (int i = 0; i < 300; i++)
        pids.push_back(child([] {}));
    for (const pid_t pid : pids) {
        siginfo_t info = {};
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    }
    EXPECT_TRUE(znProcessReapOthers(0));
    EXPECT_FALSE(znProcessReapOthers(0));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

} // namespace
