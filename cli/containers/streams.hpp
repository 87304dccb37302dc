// streams.hpp - the standard streams of a program in the foreground. The program gets pipes or a
// terminal that zncctl created, never the caller's own descriptors: through /proc/self/fd it could
// reopen the caller's file with other access rights, change its mode and owner, or go on reading
// the caller's terminal after zncctl has ended. Used by session.cpp.
#ifndef ZNC_CLI_CONTAINERS_STREAMS_HPP
#define ZNC_CLI_CONTAINERS_STREAMS_HPP

#include "cli/terminal/terminal.hpp"
#include "front/pump.hpp"
#include "program.hpp"

#include <functional>
#include <optional>
#include <string_view>

namespace zncctl {

class Streams {
  public:
    // Creates a pipe for each standard stream. Output and errors share one if they go to the same
    // file, so that their order is kept. For the null device no pipe is needed, nor for standard
    // input without `input`. False with errno set.
    bool make_pipes(bool input = true);
    // Uses the pseudo-terminal for all three. What the caller types is passed on as `filter`
    // returns it, and `typed` is called with that; null: standard input is not read.
    void use_terminal(const Pty& pty, std::function<std::string(std::string_view)> filter,
                      std::function<void(std::string_view)> typed);
    // Calls `watcher` with all output of the program, in the order in which it was read.
    void watch_output(const std::function<void(std::string_view)>& watcher);

    // The program's descriptors, for Program::start(). Call started() afterwards to close them
    // here.
    [[nodiscard]] const ProgramStreams& of_program() const { return of_program_; }
    void started() { program_ends_.clear(); }

    // Waits for a signal, for data, and for `other` to become readable (-1: none), and passes the
    // data on.
    void wait(const SignalQueue& signals, int other = -1);
    // To be called when the program has ended: passes on what it has written, and nothing that
    // other processes write later.
    void finish();
    [[nodiscard]] bool done() const;
    // Prints a message for each stream that lost data; true if there was one.
    [[nodiscard]] bool report_failures(const std::string& id) const;

  private:
    bool make_input();
    bool make_output(int fd, const char* name);

    ProgramStreams of_program_ = {kNullDevice, kNullDevice, kNullDevice};
    std::vector<znc::UniqueFd> program_ends_;
    std::optional<Pump> input_;
    std::vector<Pump> outputs_;
    bool terminal_ = false;
};

} // namespace zncctl

#endif
