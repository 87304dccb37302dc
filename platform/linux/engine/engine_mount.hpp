// engine_mount.hpp - prepares the mounts of an engine's container: each becomes a detached mount,
// which the process that makes the root attaches (zn-init, or zn-make with a user namespace). Only
// file systems whose content depends on a namespace (proc, sysfs, mqueue) are mounted by that
// process itself.
#ifndef ZN_ENGINE_MOUNT_HPP
#define ZN_ENGINE_MOUNT_HPP

#include "base/owned.hpp"
#include "mount_plan.hpp"
#include "zarnel/engine.h"

#include <sys/mount.h>

namespace zn {

struct EngineMount {
    MountPlan plan;  // the attributes of the mount itself
    MountPlan whole; // those of the mounts below it, too
    bool copyUp = false;
    bool mappedWhole = false; // owners are mapped in the mounts below it, too
    int owners = -1;          // user namespace whose owners the mount shows, if plan.mapped
};

// Reads type and options. 0, or EINVAL with `option` set to what is unknown.
int engine_mount_read(const ZN_ENGINE_MOUNT& mount, EngineMount& out, const char** option);

// Whether the file system shows a namespace of the process that mounts it.
bool engine_mount_is_inner(const MountPlan& plan);

// The detached mount. For a bind the tree at `source`; else a new file system. With copyUp it holds
// a copy of the directory `destination` of the root. Invalid with errno set.
znc::UniqueFd engine_mount_make(const EngineMount& mount, const char* source, int root,
                                const char* destination);

// A detached file system. `options` as in MountPlan. Invalid with errno set.
znc::UniqueFd detached_filesystem(const MountPlan& plan, const char* source);

// Sets the attributes of a detached mount. False with errno set.
bool engine_mount_seal(int mount, const EngineMount& wanted);

} // namespace zn

#endif
