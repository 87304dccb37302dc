#include "stop_signals.hpp"

#include <array>

namespace zncctl {
namespace {

constexpr std::array kSignals = {SIGHUP, SIGINT, SIGTERM};

} // namespace

StopSignals::StopSignals()
{
    sigset_t held;
    sigemptyset(&held);
    for (const int signo : kSignals) {
        struct sigaction action = {};
        // An ignored signal that is blocked would be kept, and stop the command.
        if (::sigaction(signo, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
            sigaddset(&held, signo);
    }
    ::pthread_sigmask(SIG_BLOCK, &held, &before_);
}

StopSignals::~StopSignals()
{
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void check_stop()
{
    sigset_t pending;
    if (::sigpending(&pending) != 0)
        return;
    for (const int signo : kSignals)
        if (sigismember(&pending, signo) == 1)
            throw Stopped();
}

} // namespace zncctl
