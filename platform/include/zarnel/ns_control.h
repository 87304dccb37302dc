/*
 * ns_control.h - inspecting and controlling namespaces of another process: pausing, resource use
 * and limits, and the paths of the kernel's namespaces.
 *
 * All calls may be made by any process with the owner's rights, from any task. They fail with ESRCH
 * if the namespace does not exist or has ended.
 */
#ifndef ZARNEL_NS_CONTROL_H
#define ZARNEL_NS_CONTROL_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Find the namespace whose root was made under `name` (znnsRootfsCreate). Returns its id, or -1
 * with errno set: ESRCH if there is none.
 */
nsid_t znnsFind(const char* name);

/*
 * Call `visit` for each namespace with a root, with the name that znnsFind takes. The owner of such
 * a namespace may have died; the calls below then fail. OK, or ERROR if the namespaces cannot be
 * listed.
 */
STATUS znnsEach(void (*visit)(nsid_t ns, const char* name, void* context), void* context);

/*
 * Suspend all processes in the namespace, or let them continue. Returns when it has taken effect.
 * OK if they are in that state already. ERROR with ENOTSUP if the machine has no control groups, or
 * ETIMEDOUT.
 */
STATUS znnsFreeze(nsid_t ns, BOOL frozen);
STATUS znnsFrozen(nsid_t ns, BOOL* frozen);

#define ZNNS_NO_LIMIT UINT64_MAX

typedef struct znNsUse {
    uint64_t cpuNs;       /* processor time used, in nanoseconds */
    uint64_t memory;      /* bytes, without file cache that can be dropped at once */
    uint64_t memoryLimit; /* ZNNS_NO_LIMIT: none */
    uint64_t pids;
    uint64_t pidsLimit;
    uint64_t readBytes; /* from block devices */
    uint64_t writtenBytes;
    uint64_t oomKills; /* processes that were killed because the memory limit was reached */
} ZN_NS_USE;

/* What the processes in the namespace use. ENOTSUP if the machine has no control groups. */
STATUS znnsUseGet(nsid_t ns, ZN_NS_USE* use);

/*
 * Change the limits of the namespace. `resources` is a JSON object as in "linux.resources" of a
 * configuration; limits that it does not name are not changed. ERROR with EINVAL or ENOTSUP and, in
 * `reason` (`size` bytes, 200 are enough), which member was refused and why.
 */
STATUS znnsLimitsSet(nsid_t ns, const char* resources, char* reason, size_t size);

/*
 * Write the host path of the namespace's root, as it was given when the root was made, to `path`:
 * paths of programs for znSpawn begin with it. ERROR with ENAMETOOLONG if it does not fit in `size`
 * bytes.
 */
STATUS znnsRootGet(nsid_t ns, char* path, size_t size);

/*
 * Open the root of the namespace as its processes see it, with all mounts, for use with the *at()
 * calls only (O_PATH). Returns a close-on-exec descriptor, or -1. Everything below it may be
 * changed by the container's processes: see znFileOpenInRoot (fs.h).
 */
int znnsRootOpen(nsid_t ns);

/*
 * Open a new pseudo-terminal in the file system that is mounted at /dev/pts of the namespace's
 * root, so that /dev/pts/N names it for its processes. `master` and `user` are its ends, open for
 * reading and writing and close-on-exec; neither becomes the controlling terminal. The user's end
 * has the mode and the owner that the file system gives it. ERROR with ENOENT if there is no such
 * file system, ENOSPC if it has no terminals left; `master` and `user` are then unchanged.
 */
STATUS znnsTerminalOpen(nsid_t ns, int* master, int* user);

/*
 * Translate the user and the group of a program in the namespace to the ids that own its files
 * outside. Without a user namespace they are the same. ERROR with EINVAL if they are not mapped.
 */
STATUS znnsOwnerGet(nsid_t ns, uid_t* uid, gid_t* gid);

/* The reverse: translate ids that own files outside to those that programs in the namespace see. */
STATUS znnsOwnerInsideGet(nsid_t ns, uid_t* uid, gid_t* gid);

/*
 * From now on, files that the calling task creates belong to this owner (ids outside, as returned
 * by znnsOwnerGet); the task keeps its rights to files. Needed for roots of namespaces with a user
 * namespace, in which the caller's user is not mapped.
 */
STATUS znnsFileOwnerSet(uid_t uid, gid_t gid);

/* The process id of a process that stays in the namespace as long as it exists, or -1 with errno
 * set: ESRCH if there is no such namespace. */
pid_t znnsHolder(nsid_t ns);

#ifdef __cplusplus
}
#endif
#endif
