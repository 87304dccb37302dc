// program.hpp - a container's program, a child of the process that starts the container. Used by
// the commands that start or follow a program, and by the monitor.
#ifndef ZNC_CLI_CONTAINERS_PROGRAM_HPP
#define ZNC_CLI_CONTAINERS_PROGRAM_HPP

#include <array>
#include <csignal>
#include <functional>
#include <optional>
#include <poll.h>
#include <span>
#include <string>
#include <sys/types.h>

#include "base/not_copied.hpp"
#include "front/record.hpp"
#include "program_link.hpp"
#include "zarnel/types.h"

namespace zncctl {

// While an object exists, all signals are blocked; they are delivered by next(). Only one object
// may exist at a time.
class SignalQueue : znc::NotCopied {
  public:
    SignalQueue();
    ~SignalQueue();

    // Waits until a signal arrives, one of the descriptors is ready or, if `time` is not null, it
    // has passed.
    void wait(std::span<pollfd> wanted, const timespec* time = nullptr) const;
    // The next signal, without waiting.
    std::optional<int> next() const;

  private:
    sigset_t before_ = {};
    std::array<struct sigaction, NSIG> actions_ = {};
};

// A program's standard streams: descriptors greater than 2, or kNullDevice for the container's null
// device.
using ProgramStreams = std::array<int, 3>;
inline constexpr int kNullDevice = -1;

// A container's program. It is a child of this process until this object reaps it, or of a host
// process (program_link.hpp).
class Program {
  public:
    // Starts a created container. Returns 0, or the errno value of the failure, -1 if it has none.
    int start(const std::string& id, const ProgramStreams& streams);
    // Starts any program by `spawn`, which sets the process id of a new child of this process, 0 if
    // there is none to run.
    int start(const ProgramStreams& streams, const std::function<STATUS(pid_t*)>& spawn);
    // Follows a program that a host starts. Waits for the start and returns its result.
    int follow(ProgramLink host);
    // A descriptor that becomes readable when look() may find the end of a program that has a host,
    // else -1.
    [[nodiscard]] int host() const { return host_.fd(); }
    // Passes on to the host what the program has written; does nothing without one.
    void tell_output(std::string_view text) const;
    // Leaves the program to its host. Returns its exit status if it has ended before.
    std::optional<int> leave();

    [[nodiscard]] pid_t pid() const
    {
        return pid_;
    } // 0: it has a host, or the daemon named no program to run

    // To be called when a child may have ended. Returns the program's exit status once it has
    // ended; 128 plus the host's signal number if a signal killed it. Also reaps other processes
    // that became children of this one.
    const std::optional<int>& look();
    // Sends a signal, given by its number on the host, to the program, or to all processes of its
    // process group. Does nothing once it has ended.
    void signal(int host_signal, bool group = false) const;
    // To be called after the program's end. From then on the kernel reaps the remaining children: a
    // container cannot be deleted while one of its processes is a zombie.
    static void leave_others();

  private:
    void look_at_host();

    pid_t pid_ = 0;
    znc::UniqueFd process_;
    ProgramLink host_;
    std::optional<int> status_;
};

// Returns 0 if the container can be started, else an errno value, -1 if there is none. Call this
// before creating a new record, because that deletes the old one.
int startable(const std::string& id);

// Returns the record of a program that was just started.
Record describe(const Program& program, bool logged);

// Completes the record of a program that has ended with this status.
void note_end(Record& record, const std::string& id, int status);

// After a failed start: says so if the reason is that the container has ended.
void print_ended_hint(int error, const std::string& id);

// Prints the message and hints for a failed start; returns exit status 125, 126 or 127.
int start_failure(int error, const std::string& id);

// Sends a signal, given by its number on the host, to the container's program, or to all of its
// processes. Signals that the container system does not have are dropped.
void forward_signal(const std::string& id, int host_signal, bool everyone = false);

} // namespace zncctl

#endif
