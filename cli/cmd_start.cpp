// The container's process is a child of whoever calls zncStart. Attached, zncctl waits for it,
// hands on the signals it gets and ends as the program ended. Detached, the program is left alone
// in a session of its own, with no way to the caller's terminal.
#include "command.hpp"
#include "output.hpp"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/wait.h>

#include "zncontainer.h"

namespace zncctl {
namespace {

// What a user or a supervisor sends to zncctl and means for the container's program.
constexpr int kForwarded[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM};

int start_failure(int error)
{
    static_cast<void>(daemon_failure(error));
    return error == S_zncLib_RTP_SPAWN_FAILED ? kExitCannotInvoke : kExitStartFailed;
}

int exit_status(int wait_status)
{
    if (WIFSIGNALED(wait_status))
        return kExitSignalBase + WTERMSIG(wait_status);
    return WEXITSTATUS(wait_status);
}

// Children that a program had before it became zncctl by exec. Empty where the kernel does not say.
std::vector<pid_t> children()
{
    std::vector<pid_t> pids;
    std::ifstream file("/proc/thread-self/children");
    for (pid_t pid = 0; file >> pid;)
        pids.push_back(pid);
    return pids;
}

bool contains(const std::vector<pid_t>& pids, pid_t pid)
{
    for (const pid_t other : pids)
        if (other == pid)
            return true;
    return false;
}

// A signal that the terminal sent reached the container's program, too: same process group.
void forward(const char* id, const siginfo_t& info)
{
    if (info.si_code == SI_KERNEL)
        return;
    const char* name = ::sigabbrev_np(info.si_signo);
    const int signo = zncUtilSignalNo(name);
    if (signo < 0)
        return;
    if (call_library([&] { return zncKill(id, signo, 0); }) != OK)
        static_cast<void>(daemon_failure(errno));
}

sigset_t signals_to_wait_for()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    for (const int signo : kForwarded)
        sigaddset(&set, signo);
    return set;
}

// Waits for the one child that is not among `others`.
int wait_for_program(const char* id, const std::vector<pid_t>& others, const sigset_t& signals)
{
    for (;;) {
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, WNOHANG);
        if (pid > 0 && !contains(others, pid))
            return exit_status(status);
        if (pid < 0) // the daemon had nothing to run
            return kExitOk;
        siginfo_t info;
        if (pid == 0 && ::sigwaitinfo(&signals, &info) > 0 && info.si_signo != SIGCHLD)
            forward(id, info);
    }
}

int start_attached(const char* id)
{
    // With SIGCHLD ignored by whoever started zncctl the exit status would be lost.
    std::signal(SIGCHLD, SIG_DFL);
    const sigset_t signals = signals_to_wait_for();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const std::vector<pid_t> others = children();
    errno = 0;
    if (zncStart(id, ZNC_OPT_NO_WAIT) != OK)
        return start_failure(errno);
    return wait_for_program(id, others, signals);
}

// The program gets the caller's streams, but never a terminal.
void give_up_terminals()
{
    const znc::UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (int fd = STDIN_FILENO; null && fd <= STDERR_FILENO; fd++)
        if (::isatty(fd) != 0)
            ::dup2(null.get(), fd);
}

int start_in_new_session(const char* id)
{
    ::setsid();
    const znc::UniqueFd errors(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    give_up_terminals();
    errno = 0;
    const STATUS status = zncStart(id, ZNC_OPT_NO_WAIT);
    const int error = errno;
    if (errors)
        ::dup2(errors.get(), STDERR_FILENO);
    return status == OK ? static_cast<int>(kExitOk) : daemon_failure(error);
}

// A process of its own, since only one that leads no process group can leave its session.
int start_detached(const char* id)
{
    std::signal(SIGCHLD, SIG_DFL);
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0)
        return local_failure(errno);
    if (pid == 0) {
        const int status = start_in_new_session(id);
        std::fflush(nullptr);
        ::_exit(status);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return local_failure(errno);
    return exit_status(status);
}

} // namespace

int cmd_start(const Arguments& args)
{
    const char* id = args.operand(0);
    return args.has("detach") ? start_detached(id) : start_attached(id);
}

} // namespace zncctl
