// monitor.hpp - the monitor process of a detached container: it writes the log, waits for the
// program and records its exit code. Used by start and run.
#ifndef ZNC_CLI_CONTAINERS_MONITOR_HPP
#define ZNC_CLI_CONTAINERS_MONITOR_HPP

#include "front/command.hpp"

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
};

// Starts a created container with a monitor. Returns 0 once the program runs, else the errno value
// of the failure, or -1 if it has none.
int start_with_monitor(const std::string& id, const MonitorOptions& options);

// Deletes a container with a monitor when its program has ended, by a process of its own.
void delete_when_ended(const std::string& id);

} // namespace zncctl

#endif
