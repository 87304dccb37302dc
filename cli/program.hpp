// program.hpp - a container's program, which is a child of whoever starts the container. Used by
// the commands that start or follow one, and by the monitor.
#ifndef ZNCCTL_PROGRAM_HPP
#define ZNCCTL_PROGRAM_HPP

#include <array>
#include <csignal>
#include <optional>
#include <poll.h>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

#include "record.hpp"

namespace zncctl {

// For its life every signal is held back, and handed out when it is asked for. One at a time.
class SignalQueue {
  public:
    SignalQueue();
    ~SignalQueue();
    SignalQueue(const SignalQueue&) = delete;
    SignalQueue& operator=(const SignalQueue&) = delete;

    // Waits until a signal comes or one of these is ready.
    void wait(std::span<pollfd> wanted) const;
    // The next one, without waiting.
    std::optional<int> next() const;

  private:
    sigset_t before_ = {};
    std::array<struct sigaction, NSIG> actions_ = {};
};

struct Program {
    int error = -1;            // 0: it was started
    pid_t pid = 0;             // 0: the daemon had nothing to run
    std::vector<pid_t> others; // children from before
};

// Whether it can be started: 0, or an error number, -1 for none. Asked before anything is known
// anew of a container.
int startable(const std::string& id);

// Starts a created container with these as the program's standard streams.
Program start_program(const std::string& id, const std::array<int, 3>& streams);

// Looks, without waiting, whether the program has ended: its exit status, with a signal that ended
// it as 128 plus its host number.
std::optional<int> program_ended(const Program& program);

// Writes what is known of a started program into its record.
Record describe(const Program& program, bool logged);

// A failed start: its message and hints, and 125, 126 or 127.
int start_failure(int error, const std::string& id);

// Sends a host signal to the container's program; one without a number of the system's is dropped.
void forward_signal(const std::string& id, int host_signal, bool everyone = false);

} // namespace zncctl

#endif
