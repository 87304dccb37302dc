// foreground.hpp - runs a container's program in the foreground: zncctl waits for it, forwards the
// signals that it receives, and exits with the program's exit status. Used by start --attach and
// run.
#ifndef ZNC_CLI_CONTAINERS_FOREGROUND_HPP
#define ZNC_CLI_CONTAINERS_FOREGROUND_HPP

#include "cli/terminal/detach_keys.hpp"
#include "program.hpp"

#include <cstddef>

namespace zncctl {

struct ForegroundOptions {
    bool tty = false;         // the program gets a pseudo-terminal
    bool interactive = false; // and zncctl's standard input, which is a terminal if `tty` is set
    bool remove = false;      // the container is to be deleted when the program has ended
    std::size_t log_max = 0;
    bool created = false; // by this command: it need not be checked whether it can be started
    DetachKeys keys;      // with both: typed at the terminal, they leave the program running
};

struct ForegroundEnd {
    bool started = false; // the program was started
    bool left = false;    // it goes on with a monitor, which also deletes the container
};

// Starts a created container and returns its program's exit status, or the exit status for the
// failure; kExitOk after the keys. Deleting the container is left to the caller unless the program
// goes on.
int run_in_foreground(const std::string& id, const SignalQueue& signals,
                      const ForegroundOptions& options, ForegroundEnd& end);

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
