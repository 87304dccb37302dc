// zncd - the container daemon, in the foreground. It serves the queue until SIGTERM or SIGINT, then
// finishes the request in hand and ends every container.
#include "containers.hpp"
#include "runtime_dir.hpp"
#include "stop_signals.hpp"

#include <array>
#include <csignal>
#include <cstdio>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "zarnel/fs.h"
#include "zarnel/msgq.h"
#include "zarnel/task.h"

#include "zncontainer.h"

namespace {

constexpr std::size_t kQueueMessages = 32;
constexpr int kExitUsage = 64;
constexpr const char* kUsage = "usage: zncd [--help] [--version]\n";
constexpr const char* kHelp =
    "\n"
    "Serves container requests on the queue \"/znc\" until SIGTERM or SIGINT, then ends every\n"
    "container. Runs in the foreground and must be root; only root can send requests.\n"
    "\n"
    "environment:\n"
    "  ZNC_BASE  the storage base, an absolute path (default: /ram0/znc)\n";

// -1: go on and serve.
int answer_options(int argc, char** argv)
{
    if (argc < 2)
        return -1;
    const std::string_view option = argv[1];
    if (argc == 2 && option == "--version") {
        std::puts("zncd " ZNC_VERSION);
        return 0;
    }
    if (argc == 2 && (option == "--help" || option == "-h")) {
        std::printf("%s%s", kUsage, kHelp);
        return 0;
    }
    std::fputs(kUsage, stderr);
    return kExitUsage;
}

int serve(int stop_fd)
{
    znTaskStopFdSet(stop_fd);
    errno = 0;
    zncDaemonTask(); // returns when it was asked to stop or could not go on
    const int error = errno;
    znTaskStopFdSet(-1);
    const bool stopped = zncd::stop_requested(stop_fd);
    if (!stopped) {
        std::array<char, 256> reason{};
        znErrorText(error, reason.data(), reason.size());
        std::fprintf(stderr, "zncd: the queue cannot be served: %s\n", reason.data());
    }
    const bool ended = zncd::end_all();
    return stopped && ended ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (const int status = answer_options(argc, argv); status >= 0)
        return status;
    if (::geteuid() != 0) {
        std::fputs("zncd: namespaces and mounts are root's; run it as root\n", stderr);
        return 1;
    }
    ::umask(077);
    std::signal(SIGPIPE, SIG_IGN);
    const znc::UniqueFd lock = zncd::take_lock();
    if (!lock)
        return 1;
    // Before the first namespace: what is started from here on starts with both signals blocked and
    // a stop that comes early is not lost.
    const znc::UniqueFd stop = zncd::block_stop_signals();
    if (!stop) {
        std::perror("zncd: signalfd");
        return 1;
    }
    if (znMsgQLimitsRaise(kQueueMessages) != OK) {
        std::fprintf(stderr, "zncd: message queues are too small: %s\n", znMsgQLimitHint());
        return 1;
    }
    zncd::recover();
    return serve(stop.get());
}
