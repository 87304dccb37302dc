// pause.hpp - containers whose processes are suspended. The daemon does not know this state: to it
// the container is running. Used by the commands that pause and resume, that print a status, and
// that need the processes to run.
#ifndef ZNC_CLI_CONTAINERS_PAUSE_HPP
#define ZNC_CLI_CONTAINERS_PAUSE_HPP

#include <map>
#include <string>

#include "zarnel/ns_control.h"
#include "zncontainer.h"

namespace zncctl {

inline constexpr const char* kPausedText = "paused";

// The namespace of a container; -1 with errno set, ESRCH if it has none.
nsid_t namespace_of(const std::string& id);

// Whether the container is running and paused. False also if that cannot be determined, as on a
// machine without control groups, where no container can be paused.
bool is_paused(const std::string& id, CONTAINER_STATUS status);
bool is_paused(nsid_t ns); // of a running container

// The namespaces of all containers, by the ids that the daemon stores (kept_id()). Faster than
// looking up many one by one. Empty if they cannot be listed.
using NamespaceIds = std::map<std::string, nsid_t>;
NamespaceIds namespaces_by_id();

// Lets the processes of a paused container continue; does nothing to others. OK, or ERROR with
// errno set.
STATUS resume_if_paused(const std::string& id);

} // namespace zncctl

#endif
