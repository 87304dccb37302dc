// cgroup.hpp - the control group of a container, in cgroup v2 or in the hierarchies of v1. Used
// for the daemon's containers and those of engines: creation, removal, the files through which a
// process enters, freezing, statistics, new limits. Does not decide which limits apply.
//
// A group is identified by its path below the root of each hierarchy, for example "/zarnel/web".
// "", "/", paths with "." or ".." components and paths longer than kCgroupPathMax are refused with
// EINVAL; empty components are ignored. No symbolic link is followed. All functions return 0 or an
// error number unless stated otherwise, and ENOENT if the group does not exist.
#ifndef ZN_CGROUP_HPP
#define ZN_CGROUP_HPP

#include "settings/settings.hpp"

namespace zn {

inline constexpr std::size_t kCgroupPathMax = 512;

enum class CgroupVersion { kNone, kV1, kV2 };

// What the machine has: v2 if /sys/fs/cgroup is cgroup2, v1 if controllers are mounted below it
// (also with an additional "unified" hierarchy, whose controllers are then used, too), none
// otherwise. Hierarchies in whose root this process may not create groups do not count: those that
// are mounted read-only or belong to another user, as in most containers. Neither does v2 if this
// process may create groups below its own one only. Determined on each call.
CgroupVersion cgroup_version();

// The same, and v2 also if this process may create groups below its own one only.
CgroupVersion cgroup_version_delegated();

// Creates the group, with its parents, in all hierarchies that are used, and applies `resources`.
// An existing group is taken over if no process is in it or below it, else EBUSY: it is thawed,
// groups below it are removed, limits that are not given stay as they are. ENOTSUP with `field` set
// to the name of the limit ("memory.limit") that this machine has no controller for; with `field`
// null if there are no hierarchies. If the kernel refuses a limit, its error number and `field`. On
// failure, nothing that was created remains.
//
// The limit -1 (unlimited) is accepted without a controller. If there are device rules, devices
// that no rule allows are refused, and the last rule that matches decides; without rules nothing is
// written.
int cgroup_create(const char* path, const Resources& resources, const char** field);

// Whether this process may create the group and enter it. In v2, a user may have been given a group
// below the root, with all groups below that.
bool cgroup_may_create(const char* path);

// For a container without a group of its own: ENOTSUP with `field` set to the name of the first
// limit or device rule that is given.
int cgroup_without(const Resources& resources, const char** field);

// Completes a group that a service manager has created around the process `pid`: creates it in the
// hierarchies where it is missing, moves the process there, and applies `resources`. ENOENT if it
// exists in no hierarchy; other errors as above. On failure, what was created here is removed if
// the process is not in it.
int cgroup_complete(const char* path, int pid, const Resources& resources, const char** field);

// Whether `path` is the group `group` or below it, so that removing `group` would remove it with
// its processes. True also if a path is invalid.
bool cgroup_contains(const char* group, const char* path);

// A group's directory in one hierarchy, and the name of the hierarchy below /sys/fs/cgroup; "" for
// the unified one if it is mounted there.
struct GroupDirectory {
    Text path;
    Text name;
};

// Appends the directories of a group. ENOENT if it does not exist.
int cgroup_directories(const char* path, List<GroupDirectory>& directories);

// Applies the limits that are given; others stay as they are. Errors as above; limits that were
// written before the one that failed stay.
int cgroup_limit(const char* path, const Resources& resources, const char** field);

// The files to write "0" to for a process to enter the group, one for each hierarchy: absolute host
// paths.
int cgroup_entries(const char* path, List<Text>& entries);

// Freezes or thaws all processes; returns when it has taken effect, ETIMEDOUT after two seconds
// (thawed again if it was freezing). ENOTSUP if there is no freezer. EBUSY if this process would
// freeze itself.
int cgroup_freeze(const char* path, bool frozen);
int cgroup_frozen(const char* path, bool& frozen);

// Thaws the group if it is frozen: frozen processes do not die when they are killed. Does nothing
// for "". Preserves errno.
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

// What the group uses, with the groups below it. Figures whose controller is missing are 0, limits
// UINT64_MAX.
int cgroup_use(const char* path, CgroupUse& use);

// The processes in the group and in those below it, host process ids.
int cgroup_processes(const char* path, List<int>& pids);

// Removes the group and the groups that the container made below it; first thaws it and kills the
// processes in it, waiting up to two seconds (EBUSY after that, and if this process is in it), and
// up to ten more if there are very many groups (then EBUSY, too; the next call goes on). OK if
// there is none. Parents stay.
int cgroup_remove(const char* path);

// Marks the group as that of a container, so that a group with the same path which another
// container has created or taken over can be recognised. Returns 0 also in hierarchies where this
// process may not set the mark.
int cgroup_mark(const char* path, const char* mark);

// Removes the group that has this mark as cgroup_remove does, unless one below it has another mark
// and processes.
// A group without a mark is removed if it has no processes, in groups below it, too. EBUSY
// otherwise.
int cgroup_remove_marked(const char* path, const char* mark);

} // namespace zn

#endif
