// raw_terminal.hpp - puts the caller's terminal into raw mode and restores it.
#ifndef ZNC_FRONT_RAW_TERMINAL_HPP
#define ZNC_FRONT_RAW_TERMINAL_HPP

#include "base/not_copied.hpp"

#include <termios.h>

namespace zncctl {

// Keeps the terminal on standard input in raw mode. The destructor restores it. Signals must be
// blocked while an object exists, so that none of them ends this program without restoring the
// terminal.
class RawTerminal : znc::NotCopied {
  public:
    RawTerminal();
    ~RawTerminal();

    explicit operator bool() const { return valid_; }
    // Does nothing while this program is in the background, because another process group uses the
    // terminal: call it again later.
    void set_raw();
    // lend() restores the settings temporarily, restore() permanently. restore() also discards
    // pending input: what was typed for the program, and the terminal's answers to its queries,
    // must not reach the shell as commands.
    void lend();
    void restore();

  private:
    void restore_settings(int when);

    termios saved_ = {};
    bool valid_;
    bool raw_ = false;
};

// Whether another process group of the session is in the foreground of the terminal. Reading it
// would then fail, and changing its settings would disturb that group.
bool in_background(int terminal);

} // namespace zncctl

#endif
