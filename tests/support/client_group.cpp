#include "client_group.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Returns when the other end of the pipe is closed.
void wait_for_end(int fd)
{
    char byte;
    while (::read(fd, &byte, 1) < 0 && errno == EINTR) {
    }
    ::close(fd);
}

int status_of(pid_t pid)
{
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

ClientGroup::ClientGroup(int count, const std::function<int(int)>& body)
{
    int gate[2];
    if (::pipe2(gate, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe");
    std::fflush(nullptr);
    for (int i = 0; i < count; i++) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::close(gate[1]);
            wait_for_end(gate[0]);
            const int result = body(i);
            std::fflush(nullptr);
            ::_exit(result);
        }
        if (pid > 0)
            pids_.push_back(pid);
    }
    ::close(gate[0]);
    ::close(gate[1]);
    if (pids_.size() != static_cast<std::size_t>(count)) {
        for (const pid_t pid : pids_)
            ::kill(pid, SIGKILL);
        wait();
        throw std::runtime_error("fork");
    }
}

ClientGroup::~ClientGroup()
{
    for (const pid_t pid : pids_)
        ::kill(pid, SIGKILL);
    wait();
}

std::vector<int> ClientGroup::wait()
{
    std::vector<int> ended;
    for (const pid_t pid : pids_)
        ended.push_back(status_of(pid));
    pids_.clear();
    return ended;
}
