// pidfd.hpp - processes by descriptor. A pidfd refers to one process even if its id is reused.
// glibc declares these calls for C only, so they are made with syscall().
#ifndef ZN_PIDFD_HPP
#define ZN_PIDFD_HPP

#include "base/owned.hpp"
#include "platform/common/clock.hpp"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zn {

inline znc::UniqueFd process_open(pid_t pid)
{
    return znc::UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

inline int process_signal(int pidfd, int hostSignal)
{
    return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, hostSignal, nullptr, 0));
}

// Whether `fd` becomes readable within the given time; restarts after signals.
inline bool readable_within(int fd, int milliseconds)
{
    const std::int64_t deadline = now_ns() + std::int64_t{milliseconds} * 1000000;
    pollfd one = {fd, POLLIN, 0};
    for (;;) {
        const std::int64_t left = deadline - now_ns();
        const timespec wait = to_timespec(left > 0 ? left : 0);
        const int n = ::ppoll(&one, 1, &wait, nullptr);
        if (n >= 0 || errno != EINTR)
            return n > 0;
    }
}

// Whether the process ends within the given time; true also if it was reaped.
inline bool process_ended(int pidfd, int milliseconds)
{
    return readable_within(pidfd, milliseconds);
}

// Reaps a child, waiting for its end.
inline void process_reap(int pidfd)
{
    const znc::ErrnoSaver keep;
    siginfo_t info;
    while (::waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(pidfd), &info,
                    WEXITED | __WALL) != 0 &&
           errno == EINTR) {
    }
}

} // namespace zn

#endif
