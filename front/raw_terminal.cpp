#include "raw_terminal.hpp"

#include "base/owned.hpp"

#include <unistd.h>

namespace zncctl {

RawTerminal::RawTerminal() : valid_(::tcgetattr(STDIN_FILENO, &saved_) == 0)
{
    set_raw();
}

RawTerminal::~RawTerminal()
{
    restore();
}

void RawTerminal::set_raw()
{
    if (!valid_ || raw_ || in_background(STDIN_FILENO))
        return;
    termios raw = saved_;
    ::cfmakeraw(&raw);
    raw_ = ::tcsetattr(STDIN_FILENO, TCSADRAIN, &raw) == 0;
}

void RawTerminal::lend()
{
    restore_settings(TCSADRAIN);
}

void RawTerminal::restore()
{
    restore_settings(TCSAFLUSH);
}

void RawTerminal::restore_settings(int when)
{
    const znc::ErrnoSaver keep;
    if (raw_)
        ::tcsetattr(STDIN_FILENO, when, &saved_);
    raw_ = false;
}

bool in_background(int terminal)
{
    const pid_t group = ::tcgetpgrp(terminal);
    return group > 0 && group != ::getpgrp();
}

} // namespace zncctl
