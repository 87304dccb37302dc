// streams.hpp - the standard streams of a program in the foreground. It gets pipes or a terminal of
// zncctl's making, never what the caller has: through /proc/self/fd a program could open the
// caller's file with other rights than it was given, change its mode and owner, or go on reading
// the caller's terminal after its end. Used by foreground.cpp.
#ifndef ZNC_CLI_CONTAINERS_STREAMS_HPP
#define ZNC_CLI_CONTAINERS_STREAMS_HPP

#include "cli/terminal/pump.hpp"
#include "cli/terminal/terminal.hpp"
#include "program.hpp"

#include <functional>
#include <optional>
#include <string_view>

namespace zncctl {

class Streams {
  public:
    // A pipe for each stream of the caller's; one for output and errors together if those lead to
    // the same place, so that their order stays. The null device stays one. False with errno set.
    bool make_pipes();
    // The terminal for all three. `typed` gets what the caller types.
    void use_terminal(const Pty& pty, std::function<void(std::string_view)> typed);

    // For start(): the program's descriptors. Afterwards they are closed here.
    [[nodiscard]] const ProgramStreams& of_program() const { return of_program_; }
    void started() { own_.clear(); }

    // Waits for a signal, or for bytes and passes them on.
    void wait(const SignalQueue& signals);
    // The program has ended: passes on what it has written and no more, whoever else writes.
    void finish();
    [[nodiscard]] bool done() const;
    // Says what could not be passed on; whether there was anything.
    [[nodiscard]] bool report_failures(const std::string& id) const;

  private:
    bool make_input();
    bool make_output(int fd, const char* name);

    ProgramStreams of_program_ = {kNullDevice, kNullDevice, kNullDevice};
    std::vector<znc::UniqueFd> own_;
    std::optional<Pump> input_;
    std::vector<Pump> outputs_;
    bool terminal_ = false;
};

} // namespace zncctl

#endif
