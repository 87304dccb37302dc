#include "terminal.hpp"

#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "zarnel/ns_control.h"

namespace zncctl {

Pty::Pty(nsid_t ns, uid_t owner)
{
    // Not for the group "tty", of whichever side.
    if ((!open_in_container(ns, owner) && !open_on_host()) || ::fchmod(user_.get(), 0600) != 0 ||
        ::fcntl(master_.get(), F_SETFL, O_RDWR | O_NONBLOCK) != 0) {
        user_.reset();
        return;
    }
    constexpr unsigned short kRows = 24;
    constexpr unsigned short kColumns = 80;
    set_size(kRows, kColumns);
    copy_size();
}

bool Pty::open_in_container(nsid_t ns, uid_t owner)
{
    int master = -1;
    int user = -1;
    gid_t group = 0; // stays that of the file system
    if (ns < 0 || znnsOwnerGet(ns, &owner, &group) != OK ||
        znnsTerminalOpen(ns, &master, &user) != OK)
        return false;
    master_.reset(master);
    user_.reset(user);
    return ::fchown(user, owner, static_cast<gid_t>(-1)) == 0;
}

bool Pty::open_on_host()
{
    std::array<char, 64> name{};
    master_.reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!master_ || ::grantpt(master_.get()) != 0 || ::unlockpt(master_.get()) != 0 ||
        ::ptsname_r(master_.get(), name.data(), name.size()) != 0)
        return false;
    user_.reset(::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    return static_cast<bool>(user_);
}

void Pty::set_size(unsigned short rows, unsigned short columns) const
{
    winsize size = {};
    size.ws_row = rows;
    size.ws_col = columns;
    static_cast<void>(::ioctl(master_.get(), TIOCSWINSZ, &size));
}

void Pty::copy_size() const
{
    winsize size = {};
    if (::ioctl(STDIN_FILENO, TIOCGWINSZ, &size) == 0)
        static_cast<void>(::ioctl(master_.get(), TIOCSWINSZ, &size));
}

void Pty::settle() const
{
    // poll() on the program's side makes the kernel process the input that was written to the
    // master.
    const znc::UniqueFd user(::ioctl(master_.get(), TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC));
    pollfd input = {user.get(), POLLIN, 0};
    if (user)
        static_cast<void>(::poll(&input, 1, 0));
}

int Pty::signal_of(char typed) const
{
    termios settings = {};
    pid_t group = 0;
    if (::tcgetattr(master_.get(), &settings) != 0 || (settings.c_lflag & ISIG) == 0 ||
        (::ioctl(master_.get(), TIOCGPGRP, &group) == 0 && group > 0))
        return 0;
    const auto is = [&](std::size_t which) {
        return settings.c_cc[which] != _POSIX_VDISABLE &&
               settings.c_cc[which] == static_cast<cc_t>(typed);
    };
    return is(VINTR) ? SIGINT : is(VQUIT) ? SIGQUIT : is(VSUSP) ? SIGTSTP : 0;
}

} // namespace zncctl
