#include "stop_signals.hpp"

#include "base/failure.hpp"

#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

namespace zncd {

znc::UniqueFd block_stop_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    if (const int error = ::pthread_sigmask(SIG_BLOCK, &set, nullptr); error != 0)
        return znc::fail(error, znc::UniqueFd());
    return znc::UniqueFd(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

StopRequest stop_requested(int fd)
{
    StopRequest request;
    signalfd_siginfo signal = {};
    while (::read(fd, &signal, sizeof signal) == static_cast<ssize_t>(sizeof signal)) {
        request.any = true;
        request.interrupt = request.interrupt || signal.ssi_signo == SIGINT;
    }
    return request;
}

} // namespace zncd
