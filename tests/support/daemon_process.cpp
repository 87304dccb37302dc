#include "daemon_process.hpp"

#include "eventually.hpp"
#include "spare_processes.hpp"
#include "zncprotocol.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mqueue.h>
#include <stdexcept>
#include <string_view>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Identifies the queue that has the daemon's name; 0 if there is none.
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

std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

} // namespace

DaemonProcess::DaemonProcess(const std::string& storage, const char* option)
{
    const char* program = std::getenv("ZNCD");
    if (program == nullptr)
        throw std::runtime_error("ZNCD does not name the daemon's program");
    // A request sent to the queue of a dead daemon would wait a long time for a reply: wait until
    // the new daemon has replaced the queue, unless it is one that takes the queue over.
    const ino_t before = queue_identity();
    pid_ = ::fork();
    if (pid_ == 0) {
        // If the test crashes, its daemon and everything that the daemon keeps alive end with it.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::setenv("ZNC_BASE", storage.c_str(), 1);
        ::execl(program, program, option, static_cast<char*>(nullptr));
        ::_exit(127);
    }
    const bool keeps = option != nullptr && std::string_view(option) == "--keep";
    const auto is_there = [before, keeps] {
        const ino_t now = queue_identity();
        return now != 0 && (keeps || now != before);
    };
    bool ended = false;
    const bool serves = eventually([&] {
        ended = ::waitpid(pid_, nullptr, WNOHANG) == pid_;
        return ended || (is_there() && zncDaemonIsAlive() != FALSE);
    });
    if (!ended && serves) {
        ownThreads_ = threads();
        return;
    }
    if (!ended)
        stop(SIGKILL);
    pid_ = -1;
    throw std::runtime_error(ended ? "zncd ended instead of serving" : "zncd does not answer");
}

DaemonProcess::~DaemonProcess()
{
    if (pid_ > 0)
        stop(SIGTERM);
}

bool DaemonProcess::is_idle() const
{
    const std::string directory = "/proc/" + std::to_string(pid_);
    const bool sleeps = read_file(directory + "/stat").find(") S ") != std::string::npos;
    const std::set<pid_t> children = spare_processes::children_of(pid_);
    return sleeps && threads() <= ownThreads_ &&
           std::all_of(children.begin(), children.end(), spare_processes::is_one);
}

std::ptrdiff_t DaemonProcess::threads() const
{
    namespace fs = std::filesystem;
    const fs::directory_iterator list("/proc/" + std::to_string(pid_) + "/task");
    return std::distance(fs::begin(list), fs::end(list));
}

int DaemonProcess::stop(int hostSignal)
{
    int status = 0;
    ::kill(pid_, hostSignal);
    if (!eventually([&] { return ::waitpid(pid_, &status, WNOHANG) != 0; })) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
