// terminal.hpp - the caller's terminal made raw and given back, and a terminal made for a
// container's program. Used by foreground.cpp.
#ifndef ZNCCTL_TERMINAL_HPP
#define ZNCCTL_TERMINAL_HPP

#include <string_view>
#include <termios.h>

#include "zarnel/owned.hpp"

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
    void set_raw() const;
    void restore() const;

  private:
    termios saved_ = {};
    bool valid_;
};

// A pseudo-terminal of the size of the terminal on standard input.
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

  private:
    znc::UniqueFd master_;
    znc::UniqueFd user_;
};

} // namespace zncctl

#endif
