// foreground.hpp - runs a container's program in the foreground: zncctl waits for it, forwards the
// signals that it receives, and exits with the program's exit status. Used by start --attach and
// run.
#ifndef ZNC_CLI_CONTAINERS_FOREGROUND_HPP
#define ZNC_CLI_CONTAINERS_FOREGROUND_HPP

#include "program.hpp"

namespace zncctl {

// Starts a created container and returns its program's exit status, or the exit status for the
// failure. With `tty` the program gets a pseudo-terminal, and the caller's terminal on standard
// input is put into raw mode.
int run_in_foreground(const std::string& id, const SignalQueue& signals, bool tty);

// Forwards signals that zncctl receives to the program. Also used by attach.
class SignalRelay {
  public:
    explicit SignalRelay(std::string id) : id_(std::move(id)) {}
    void forward(int signo);

  private:
    std::string id_;
    int last_ = 0;
};

} // namespace zncctl

#endif
