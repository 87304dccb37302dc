// cgroup.hpp - the control group of a container, in cgroup v2 or in the hierarchies of v1. Called
// by the namespace service (creation, removal), by znSpawn (the files through which a process
// enters) and by ns_control.cpp (freezing, figures, new limits). Does not decide which limits
// apply.
//
// A group is identified by its path below the root of each hierarchy, for example "/zarnel/web".
// "", "/", paths with "." or ".." components and paths longer than kCgroupPathMax are refused with
// EINVAL. All functions return 0 or an error number unless stated otherwise.
#ifndef ZN_CGROUP_HPP
#define ZN_CGROUP_HPP

#include "settings/settings.hpp"

namespace zn {

inline constexpr std::size_t kCgroupPathMax = 512;

enum class CgroupVersion { kNone, kV1, kV2 };

// What the machine has: v2 if /sys/fs/cgroup is cgroup2, v1 if controllers are mounted below it
// (also with an additional "unified" hierarchy), none otherwise. Determined on each call.
CgroupVersion cgroup_version();

// Creates the group, with its parents, in all hierarchies that are used, and applies `resources`.
// An existing group is taken over if no process is in it or below it, else EBUSY. ENOTSUP with
// `field` set to the name of the limit ("memory.limit") that this machine has no controller for. On
// failure nothing that was created stays.
int cgroup_create(const char* path, const Resources& resources, const char** field);

// Applies the limits that are given; others stay as they are. ENOTSUP as above.
int cgroup_limit(const char* path, const Resources& resources, const char** field);

// The files to write "0" to for a process to enter the group, one for each hierarchy: absolute host
// paths.
int cgroup_entries(const char* path, List<Text>& entries);

// Freezes or thaws all processes; returns when it has taken effect, ETIMEDOUT after two seconds
// (thawed again if it was freezing). ENOTSUP if there is no freezer.
int cgroup_freeze(const char* path, bool frozen);
int cgroup_frozen(const char* path, bool& frozen);

// Thaws the group if it is frozen: frozen processes do not die when they are killed. "" is no group.
// errno is preserved.
void cgroup_thaw(const char* path);

struct CgroupUse {
    std::uint64_t cpuNs = 0;
    std::uint64_t userNs = 0;
    std::uint64_t systemNs = 0;
    std::uint64_t memory = 0;      // bytes, without file cache that can be dropped at once
    std::uint64_t memoryLimit = 0; // UINT64_MAX: none
    std::uint64_t pids = 0;
    std::uint64_t pidsLimit = 0; // UINT64_MAX: none
    std::uint64_t readBytes = 0;
    std::uint64_t writtenBytes = 0;
    std::uint64_t oomKills = 0;
};

// What the group uses. Figures whose controller is missing stay 0.
int cgroup_use(const char* path, CgroupUse& use);

// The processes in the group and in those below it, host process ids.
int cgroup_processes(const char* path, List<int>& pids);

// Removes the group and the groups that the container made below it; thaws it and kills what is
// left in it first, waiting up to two seconds (EBUSY after that). OK if there is none. Parents
// stay.
int cgroup_remove(const char* path);

} // namespace zn

#endif
