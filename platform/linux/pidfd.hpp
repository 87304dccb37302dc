// pidfd.hpp - processes by descriptor: once open it stands for one process for ever, whatever
// becomes of its id. The C library's header declares these for C only, so they are asked of the
// kernel.
#ifndef ZN_PIDFD_HPP
#define ZN_PIDFD_HPP

#include "zarnel/owned.hpp"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/types.h>
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

// Whether the process ended, reaped or not, waiting that long for it.
inline bool process_ended(int pidfd, int milliseconds)
{
    pollfd one = {pidfd, POLLIN, 0};
    int n;
    do {
        n = ::poll(&one, 1, milliseconds);
    } while (n < 0 && errno == EINTR);
    return n > 0;
}

} // namespace zn

#endif
