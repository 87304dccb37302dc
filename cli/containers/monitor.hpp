// monitor.hpp - the monitor process of a detached container: it writes the log, waits for the
// program and records its exit code. Used by start and run.
#ifndef ZNC_CLI_CONTAINERS_MONITOR_HPP
#define ZNC_CLI_CONTAINERS_MONITOR_HPP

#include "cli/terminal/terminal.hpp"
#include "front/command.hpp"
#include "program_link.hpp"

#include <cstddef>
#include <string>

namespace zncctl {

// Reads the option --log-max. False, after printing a message, if it is not a valid size.
bool log_limit(const Arguments& args, std::size_t& limit);

struct MonitorOptions {
    std::size_t log_max = 0;
    bool tty = false;         // the program gets a pseudo-terminal, whose output is logged
    bool interactive = false; // its standard input stays open for processes that attach
    bool remove = false;      // the container is deleted when the program has ended
    bool created = false;     // by this command: it need not be checked whether it can be started
};

// Starts a created container with a monitor. Returns 0 once the program runs, else the errno value
// of the failure, or -1 if it has none.
int start_with_monitor(const std::string& id, const MonitorOptions& options);

// The monitor of a container whose program runs on a terminal in the foreground: starts the program
// and reports to the other end of the link. As long as that is open it reads the terminal, and
// deletes the container afterwards; else the monitor does. To be called in a process of its own.
void host_program(const std::string& id, const MonitorOptions& options, ProgramLink link,
                  Pty terminal);

} // namespace zncctl

#endif
