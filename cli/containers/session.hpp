// session.hpp - a program in the foreground: its standard streams or terminal, the signals that
// zncctl receives for it, and the wait for its end. Used by the commands that start a program and
// exit with its status.
#ifndef ZNC_CLI_CONTAINERS_SESSION_HPP
#define ZNC_CLI_CONTAINERS_SESSION_HPP

#include "cli/terminal/detach_keys.hpp"
#include "cli/terminal/terminal.hpp"
#include "program.hpp"
#include "streams.hpp"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace zncctl {

// The terminal of a program in a container.
struct TerminalOptions {
    nsid_t ns = -1;  // of the container
    uid_t owner = 0; // in the container: the user that the program runs as
    DetachKeys keys; // leave the program running
};

// How signals reach the program. Both take the host's number of a signal.
struct SignalPaths {
    std::function<void(const Program&, int)> forward; // a signal that zncctl has received
    std::function<void(const Program&, int)> typed;   // a key typed at the terminal
};

class Session {
  public:
    Session(const SignalQueue& signals, SignalPaths paths)
        : signals_(signals), paths_(std::move(paths))
    {
    }

    // Creates the program's streams: a pseudo-terminal with `terminal`, else pipes. Without `input`
    // the program reads nothing of zncctl's standard input. With both, the caller's terminal is put
    // into raw mode. False with errno set.
    bool open(const std::optional<TerminalOptions>& terminal, bool input);
    // Calls `watcher` with all output of the program. To be called after open().
    void watch_output(const std::function<void(std::string_view)>& watcher);

    // Calls `start` with the program and its streams, and returns its result: 0, or an error. The
    // caller's terminal is restored after an error.
    int start(const std::function<int(Program&, const ProgramStreams&)>& start);
    // The same for a program with a terminal that can be left: `host` runs in a process of its own,
    // which keeps only its end of the link and the terminal. It starts the program on the terminal,
    // reports that, waits for the program, and reads the terminal once the link is at its end.
    int start_hosted(const std::function<void(ProgramLink link, Pty terminal)>& host);
    [[nodiscard]] const Program& program() const { return program_; }

    // Passes data and signals on until the program has ended, and returns its exit status; or until
    // the detach keys are typed: nullopt.
    std::optional<int> wait();

    // Passes on what the program wrote before it ended, however slowly that is read, and restores
    // the terminal. Returns the exit status: that of the program, or kExitStartFailed after a
    // message if output was lost and the program exited with 0.
    int finish(const std::string& id, int status);
    // The end after the detach keys: restores the terminal and leaves the program to its host.
    // Returns the program's exit status if it has ended nevertheless.
    std::optional<int> leave();

    // Must be called before anything is printed.
    void restore_terminal();

  private:
    // The program's pseudo-terminal, and the caller's terminal, in raw mode if that is read.
    struct Terminals {
        std::unique_ptr<RawTerminal> raw;
        Pty pty;
        DetachKeys keys;
    };

    bool open_terminal(const TerminalOptions& options, bool input);
    void set_raw();
    void pass_rest();
    bool handle_signals();
    void handle(int signo);
    void handle_keys(std::string_view typed);
    void stop_self();

    const SignalQueue& signals_;
    SignalPaths paths_;
    std::unique_ptr<Terminals> terminals_;
    Streams streams_; // declared after terminals_, which it uses
    Program program_;
};

} // namespace zncctl

#endif
