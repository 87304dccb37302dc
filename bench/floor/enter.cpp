// enter.cpp - the floor of executing a program in a running container: a process enters the
// namespaces of another one, changes to its root, starts the program there and waits for it. One
// process and its children, no daemon, no checks, no limits and no filters of system calls.
//
// usage: floor_enter ROUNDS PID PROGRAM
//
// Prints the nanoseconds of each round.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kNamespaces =
    CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWNET | CLONE_NEWCGROUP;

void must(bool good, const char* what)
{
    if (good)
        return;
    std::perror(what);
    std::_Exit(1);
}

void wait_for(pid_t pid)
{
    int status = -1;
    must(pid > 0 && ::waitpid(pid, &status, 0) == pid && status == 0, "program");
}

// setns() changes the PID namespace of later children only, so that the program is a child.
void run_in(int pidfd, char* program)
{
    must(::setns(pidfd, kNamespaces) == 0, "setns");
    const pid_t pid = ::vfork();
    if (pid == 0) {
        char* const argv[] = {program, nullptr};
        char* const envp[] = {nullptr};
        ::execve(program, argv, envp);
        ::_exit(1);
    }
    wait_for(pid);
    std::_Exit(0);
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = argc == 4 ? std::atoi(argv[1]) : 0;
    if (rounds < 1) {
        std::fputs("usage: floor_enter ROUNDS PID PROGRAM\n", stderr);
        return 64;
    }
    for (int i = 0; i < rounds; i++) {
        const auto start = std::chrono::steady_clock::now();
        const auto pidfd = static_cast<int>(::syscall(SYS_pidfd_open, std::atoi(argv[2]), 0));
        must(pidfd >= 0, "pidfd_open");
        const pid_t pid = ::fork();
        if (pid == 0)
            run_in(pidfd, argv[3]);
        wait_for(pid);
        ::close(pidfd);
        const std::chrono::nanoseconds spent = std::chrono::steady_clock::now() - start;
        std::printf("%lld\n", static_cast<long long>(spent.count()));
    }
    return 0;
}
