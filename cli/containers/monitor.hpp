// monitor.hpp - the process that stays with a detached container's program: it keeps the log, waits
// for the program and records how it ended. Used by start and run.
#ifndef ZNC_CLI_CONTAINERS_MONITOR_HPP
#define ZNC_CLI_CONTAINERS_MONITOR_HPP

#include "front/command.hpp"

#include <cstddef>
#include <string>

namespace zncctl {

// The option --log-max. False, after a message, when it is no size.
bool log_limit(const Arguments& args, std::size_t& limit);

// Starts a created container and leaves it with a monitor. 0 once the program runs, else the error
// number of the failed start, -1 for a failure without one.
int start_with_monitor(const std::string& id, std::size_t log_max);

} // namespace zncctl

#endif
