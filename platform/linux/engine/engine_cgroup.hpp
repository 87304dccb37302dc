// engine_cgroup.hpp - the file system of type "cgroup" in an engine's container. Called by
// engine.cpp.
#ifndef ZN_ENGINE_CGROUP_HPP
#define ZN_ENGINE_CGROUP_HPP

#include "base/list.hpp"
#include "engine_mount.hpp"

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

} // namespace zn

#endif
