#include "terminal.hpp"

#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>

namespace zncctl {

RawTerminal::RawTerminal() : valid_(::tcgetattr(STDIN_FILENO, &saved_) == 0)
{
    set_raw();
}

RawTerminal::~RawTerminal()
{
    restore();
}

void RawTerminal::set_raw() const
{
    if (!valid_)
        return;
    termios raw = saved_;
    ::cfmakeraw(&raw);
    ::tcsetattr(STDIN_FILENO, TCSADRAIN, &raw);
}

void RawTerminal::restore() const
{
    const znc::ErrnoSaver keep;
    if (valid_)
        ::tcsetattr(STDIN_FILENO, TCSADRAIN, &saved_);
}

Pty::Pty() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
{
    std::array<char, 64> name{};
    if (!master_ || ::grantpt(master_.get()) != 0 || ::unlockpt(master_.get()) != 0 ||
        ::ptsname_r(master_.get(), name.data(), name.size()) != 0)
        return;
    user_.reset(::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    copy_size();
}

void Pty::copy_size() const
{
    winsize size = {};
    if (::ioctl(STDIN_FILENO, TIOCGWINSZ, &size) == 0)
        static_cast<void>(::ioctl(master_.get(), TIOCSWINSZ, &size));
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
