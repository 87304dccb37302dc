#include "stop_signals.hpp"

#include <csignal>
#include <poll.h>
#include <sys/signalfd.h>

namespace zncd {

znc::UniqueFd block_stop_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    if (const int error = ::pthread_sigmask(SIG_BLOCK, &set, nullptr); error != 0) {
        errno = error;
        return {};
    }
    return znc::UniqueFd(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

bool stop_requested(int fd)
{
    pollfd poll_fd = {fd, POLLIN, 0};
    return ::poll(&poll_fd, 1, 0) == 1;
}

} // namespace zncd
