// program.hpp - a container's program, which is a child of whoever starts the container. Used by
// the commands that start or follow one, and by the monitor.
#ifndef ZNC_CLI_CONTAINERS_PROGRAM_HPP
#define ZNC_CLI_CONTAINERS_PROGRAM_HPP

#include <array>
#include <csignal>
#include <optional>
#include <poll.h>
#include <span>
#include <string>
#include <sys/types.h>

#include "front/record.hpp"

namespace zncctl {

// For its life every signal is held back, and handed out when it is asked for. One at a time.
class SignalQueue {
  public:
    SignalQueue();
    ~SignalQueue();
    SignalQueue(const SignalQueue&) = delete;
    SignalQueue& operator=(const SignalQueue&) = delete;

    // Waits until a signal comes, one of these is ready or, if not null, the time is up.
    void wait(std::span<pollfd> wanted, const timespec* time = nullptr) const;
    // The next one, without waiting.
    std::optional<int> next() const;

  private:
    sigset_t before_ = {};
    std::array<struct sigaction, NSIG> actions_ = {};
};

// A program's standard streams: descriptors above 2, or kNullDevice for the container's null
// device.
using ProgramStreams = std::array<int, 3>;
inline constexpr int kNullDevice = -1;

// A container's program, which is a child of this process until it is reaped here.
class Program {
  public:
    // Starts a created container. 0, or the error number of the failed start, -1 if it has none.
    int start(const std::string& id, const ProgramStreams& streams);
    [[nodiscard]] pid_t pid() const { return pid_; } // 0: the daemon had nothing to run

    // To be called when a child may have ended. The program's exit status once it has, with a
    // signal that ended it as 128 plus its host number. Other processes that the program has made
    // children of this one are reaped as they end.
    const std::optional<int>& look();
    // After the program's end: what is left of such children vanishes without being asked for. A
    // container cannot be taken down as long as one of them waits to be reaped.
    static void leave_others();

  private:
    pid_t pid_ = 0;
    znc::UniqueFd process_;
    std::optional<int> status_;
};

// Whether a container can be started: 0, or an error number, -1 for none. Asked before anything is
// known anew of it.
int startable(const std::string& id);

// Writes what is known of a started program into its record.
Record describe(const Program& program, bool logged);

// A failed start: its message and hints, and 125, 126 or 127.
int start_failure(int error, const std::string& id);

// Sends a host signal to the container's program; one without a number of the system's is dropped.
void forward_signal(const std::string& id, int host_signal, bool everyone = false);

} // namespace zncctl

#endif
