// daemon_info.hpp - information about the running daemon. Used by version and info.
#ifndef ZNC_CLI_CONTAINERS_DAEMON_INFO_HPP
#define ZNC_CLI_CONTAINERS_DAEMON_INFO_HPP

#include <string>
#include <sys/types.h>

namespace zncctl {

// Its process id; 0 if no daemon answers or its information file has none.
pid_t daemon_pid();

// The version of the running program, which may be older than the one installed; "" if no daemon
// answers or its information file has none.
std::string daemon_version();

} // namespace zncctl

#endif
