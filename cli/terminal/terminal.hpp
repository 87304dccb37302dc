// terminal.hpp - the caller's terminal made raw and given back, and a terminal made for a
// container's program. Used by foreground.cpp.
#ifndef ZNC_CLI_TERMINAL_TERMINAL_HPP
#define ZNC_CLI_TERMINAL_TERMINAL_HPP

#include <string_view>
#include <termios.h>

#include "base/owned.hpp"

namespace zncctl {

// The terminal on standard input, raw while this lives. All ways out of the function that has it
// restore it; signals must be blocked meanwhile, so that none of them is a way out.
class RawTerminal {
  public:
    RawTerminal();
    ~RawTerminal();
    RawTerminal(const RawTerminal&) = delete;
    RawTerminal& operator=(const RawTerminal&) = delete;

    explicit operator bool() const { return valid_; }
    // Not while zncctl is in the background, when the terminal is somebody else's: call it again.
    void set_raw();
    // For a while. At the end what was typed for the program, and what the terminal answered to it,
    // is thrown away: a shell would take it for commands.
    void lend();
    void restore();

  private:
    void give_back(int when);

    termios saved_ = {};
    bool valid_;
    bool raw_ = false;
};

// Whether the terminal belongs to another process group of the session: reading it would fail, and
// changing it disturb those it belongs to.
bool in_background(int terminal);

// A pseudo-terminal of the size of the terminal on standard input. Of the host's users only root
// can open it.
class Pty {
  public:
    Pty();

    explicit operator bool() const { return static_cast<bool>(user_); }
    [[nodiscard]] int master() const { return master_.get(); }
    [[nodiscard]] int user() const { return user_.get(); }
    // Once the program has it: its end then shows on the other side.
    void close_user() { user_.reset(); }

    void copy_size() const; // of what is no terminal, or of no known size: nothing

    // The signal that typing this byte means for the program, 0 if none: when the terminal is the
    // program's controlling one the kernel sends it.
    [[nodiscard]] int signal_of(char typed) const;
    // Has the kernel deal with what was written to it. The keys of signals empty both directions:
    // if that came after the signal, it could take what the program answered along.
    void settle() const;

  private:
    znc::UniqueFd master_;
    znc::UniqueFd user_;
};

} // namespace zncctl

#endif
