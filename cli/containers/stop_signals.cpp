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
        // A signal that is ignored must not be blocked: it would stay pending, and check_stop()
        // would take it for a request to stop.
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
