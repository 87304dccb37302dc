#include "daemon_process.hpp"

#include "zncprotocol.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <mqueue.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

// Which queue the daemon's name stands for; 0: none.
ino_t queue_identity()
{
    const mqd_t queue = ::mq_open(ZNC_MSG_Q_NAME, O_RDONLY | O_CLOEXEC);
    struct stat st = {};
    if (queue >= 0 && ::fstat(queue, &st) != 0)
        st.st_ino = 0;
    if (queue >= 0)
        ::mq_close(queue);
    return st.st_ino;
}

} // namespace

DaemonProcess::DaemonProcess(const std::string& storage)
{
    const char* program = std::getenv("ZNCD");
    if (program == nullptr)
        throw std::runtime_error("ZNCD does not name the daemon's program");
    // Who asks while the queue is still a dead daemon's waits long for an answer that never comes.
    const ino_t before = queue_identity();
    pid_ = ::fork();
    if (pid_ == 0) {
        ::setenv("ZNC_BASE", storage.c_str(), 1);
        ::execl(program, program, static_cast<char*>(nullptr));
        ::_exit(127);
    }
    const auto is_there = [before] {
        const ino_t now = queue_identity();
        return now != 0 && now != before;
    };
    while (!is_there() || zncDaemonIsAlive() == FALSE) {
        if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error("zncd ended instead of serving");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

DaemonProcess::~DaemonProcess()
{
    if (pid_ > 0)
        stop(SIGTERM);
}

int DaemonProcess::stop(int hostSignal)
{
    int status = 0;
    ::kill(pid_, hostSignal);
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
