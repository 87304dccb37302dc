// daemon_info.hpp - the daemon that holds the lock. Used by version and info.
#ifndef ZNC_CLI_CONTAINERS_DAEMON_INFO_HPP
#define ZNC_CLI_CONTAINERS_DAEMON_INFO_HPP

#include <string>
#include <sys/types.h>

namespace zncctl {

// Its process id; 0 when no daemon answers, or it does not say.
pid_t daemon_pid();

// The version of the program that runs, also when a newer one has taken its place on disk; ""
// when it does not answer, or it does not say.
std::string daemon_version();

} // namespace zncctl

#endif
