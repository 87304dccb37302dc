// foreground.hpp - a container's program in front of the caller: zncctl waits for it, hands on the
// signals it gets and ends as the program ended. Used by start --attach and run.
#ifndef ZNC_CLI_CONTAINERS_FOREGROUND_HPP
#define ZNC_CLI_CONTAINERS_FOREGROUND_HPP

#include "program.hpp"

namespace zncctl {

// Starts a created container and returns its program's exit status, or that of the failure. With
// `tty` the program has a terminal of its own, and the caller's, on standard input, is raw.
int run_in_foreground(const std::string& id, const SignalQueue& signals, bool tty);

// A signal to zncctl that is meant for the program. Shared with attach.
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
