#include "daemon_process.hpp"

#include "zncontainer.h"

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

DaemonProcess::DaemonProcess(const std::string& storage)
{
    const char* program = std::getenv("ZNCD");
    if (program == nullptr)
        throw std::runtime_error("ZNCD does not name the daemon's program");
    pid_ = ::fork();
    if (pid_ == 0) {
        ::setenv("ZNC_BASE", storage.c_str(), 1);
        ::execl(program, program, static_cast<char*>(nullptr));
        ::_exit(127);
    }
    while (zncDaemonIsAlive() == FALSE) {
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
