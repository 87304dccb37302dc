// terminal.hpp - creates a pseudo-terminal for a container's program. Used by session.cpp.
#ifndef ZNC_CLI_TERMINAL_TERMINAL_HPP
#define ZNC_CLI_TERMINAL_TERMINAL_HPP

#include "base/owned.hpp"
#include "front/raw_terminal.hpp"
#include "zarnel/types.h"

namespace zncctl {

// A pseudo-terminal with the size of the terminal on standard input, or of 24 lines with 80 columns
// without one.
class Pty {
  public:
    // One of the container's own terminals, so that its programs find it by name, which only the
    // user `owner` of the container can open besides root. If the container has none, one of the
    // host's, which only root can open there.
    Pty(nsid_t ns, uid_t owner);

    explicit operator bool() const { return static_cast<bool>(user_); }
    [[nodiscard]] int master() const { return master_.get(); }
    [[nodiscard]] int user() const { return user_.get(); }
    // To be called once the program has its copy, so that the master reports a hangup when the
    // program ends.
    void close_user() { user_.reset(); }
    // Hangs the terminal up, unless another process has the master, too.
    void close_master() { master_.reset(); }

    void copy_size() const; // does nothing if standard input is not a terminal
    void set_size(unsigned short rows, unsigned short columns) const;

    // The signal that typing this byte should send to the program; 0 if none, or if the terminal is
    // the controlling terminal of a session, to which the kernel sends the signal itself.
    [[nodiscard]] int signal_of(char typed) const;
    // Waits until the kernel has processed what was written to the master. A key that sends a
    // signal flushes both directions of the terminal; if that happened after the signal was sent,
    // it could discard the program's reaction to it.
    void settle() const;

  private:
    bool open_in_container(nsid_t ns, uid_t owner);
    bool open_on_host();

    znc::UniqueFd master_;
    znc::UniqueFd user_;
};

} // namespace zncctl

#endif
