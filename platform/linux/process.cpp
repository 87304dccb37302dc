// process.cpp - reaping children, by pidfd and otherwise.
#include "zarnel/process.h"

#include "system/pidfd.hpp"

namespace {

constexpr int kReapLimit = 256;

// Stops of traced children are reported even with WEXITED only.
bool is_end(const siginfo_t& info)
{
    return info.si_code == CLD_EXITED || info.si_code == CLD_KILLED || info.si_code == CLD_DUMPED;
}

int wait_status(const siginfo_t& info)
{
    if (info.si_code == CLD_EXITED)
        return (info.si_status & 0xff) << 8;
    return info.si_status | (info.si_code == CLD_DUMPED ? WCOREFLAG : 0);
}

// waitid without waiting. False with errno set; EAGAIN if there is nothing to report. __WALL:
// include children whose exit signal is not SIGCHLD.
bool wait_nohang(idtype_t type, id_t id, int what, siginfo_t& info)
{
    info = {};
    int result;
    do
        result = ::waitid(type, id, &info, what | WNOHANG | __WALL);
    while (result != 0 && errno == EINTR);
    if (result == 0 && info.si_pid == 0)
        errno = EAGAIN;
    return result == 0 && info.si_pid != 0;
}

} // namespace

int znProcessOpen(pid_t pid)
{
    return zn::process_open(pid).release();
}

STATUS znProcessReap(int process, int* status)
{
    siginfo_t info;
    do
        if (!wait_nohang(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(process), WEXITED, info))
            return ERROR;
    while (!is_end(info));
    *status = wait_status(info);
    return OK;
}

BOOL znProcessReapOthers(pid_t except)
{
    for (int n = 0; n < kReapLimit; n++) {
        siginfo_t info;
        if (!wait_nohang(P_ALL, 0, WEXITED | WNOWAIT, info))
            return FALSE;
        if (is_end(info) && info.si_pid == except)
            return FALSE;
        // Safe by id: only this function reaps, so the id cannot have been reused.
        const int what = is_end(info) ? WEXITED : WSTOPPED;
        static_cast<void>(wait_nohang(P_PID, static_cast<id_t>(info.si_pid), what, info));
    }
    return TRUE;
}
