// signal.cpp - translation of Zarnel's signal numbers to the host's, by name.
#include "zarnel/signal.h"

#include <array>
#include <cerrno>
#include <csignal>

namespace {

// Indexed by Zarnel's number; -1: the host has no such signal.
constexpr std::array<int, 38> kHostNumbers = {0,
                                              SIGHUP,
                                              SIGINT,
                                              SIGQUIT,
                                              SIGILL,
                                              SIGTRAP,
                                              SIGABRT,
                                              -1 /* EMT */,
                                              SIGFPE,
                                              SIGKILL,
                                              SIGBUS,
                                              SIGSEGV,
                                              -1 /* FMT */,
                                              SIGPIPE,
                                              SIGALRM,
                                              SIGTERM,
                                              -1 /* CNCL */,
                                              SIGSTOP,
                                              SIGTSTP,
                                              SIGCONT,
                                              SIGCHLD,
                                              SIGTTIN,
                                              SIGTTOU,
                                              -1 /* RES1 */,
                                              -1,
                                              -1,
                                              -1,
                                              -1,
                                              -1,
                                              -1 /* RES7 */,
                                              SIGUSR1,
                                              SIGUSR2,
                                              SIGPOLL,
                                              SIGPROF,
                                              SIGSYS,
                                              SIGURG,
                                              SIGVTALRM,
                                              SIGXCPU};
constexpr int kXfsz = 38; // 39 and 40 (EVTS and EVTD) do not exist on the host
constexpr int kRtMin = 48;
constexpr int kRtMax = 63;

int host_number(int signo)
{
    if (signo >= 0 && signo < static_cast<int>(kHostNumbers.size()))
        return kHostNumbers[static_cast<std::size_t>(signo)];
    switch (signo) {
    case kXfsz:
        return SIGXFSZ;
    case kRtMin:
        return SIGRTMIN; // not a constant: the C library reserves some
    case kRtMax:
        return SIGRTMAX;
    default:
        return -1;
    }
}

} // namespace

int znSignalToHost(int signo)
{
    const int host = host_number(signo);
    if (host < 0)
        errno = EINVAL;
    return host;
}
