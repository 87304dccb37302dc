// engine_cgroup.hpp - the file system of type "cgroup" in an engine's container, and the
// control groups that its programs enter.
#ifndef ZN_ENGINE_CGROUP_HPP
#define ZN_ENGINE_CGROUP_HPP

#include "base/list.hpp"
#include "engine_mount.hpp"
#include "engine_reason.hpp"

#include <sys/types.h>

namespace zn {

// A mount to be attached: the first one at the destination, the others below it.
struct CgroupMount {
    char name[64] = {}; // "": at the destination itself
    znc::UniqueFd mount;
};

// Prepares the mounts that show the container its own group: the group in v2, or a directory with
// the group in each hierarchy of v1. 0 or an error number.
int engine_cgroup_mounts(const char* group, const EngineMount& wanted,
                         znc::List<CgroupMount>& mounts);

// The files through which a program of the container enters its control groups, or those below them
// that ZN_ENGINE_PROGRAM::subgroups names. 0, or an error number with the reason said.
int engine_cgroup_entries(const char* group, char* const* subgroups, znc::List<znc::Text>& entries,
                          Reason& said);

// The group of a process in v2 if it is below `group`, as for the first process of a container that
// has made groups of its own; null otherwise.
znc::Text engine_cgroup_below(const char* group, pid_t pid);

} // namespace zn

#endif
