/*
 * spawn.h - starting a process in a namespace: posix_spawn with the attributes of the Zarnel
 * kernel.
 *
 * Usage: znSpawnAttrInit, any setters, znSpawn, znSpawnAttrDestroy. An attribute record may be used
 * by one task at a time. The new process is a direct child of the caller (waitpid works).
 */
#ifndef ZARNEL_SPAWN_H
#define ZARNEL_SPAWN_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZN_SPAWN_GROUPS_MAX 254 /* supplementary groups */

/* The user that a program runs as. */
typedef struct znSpawnUser {
    uint32_t uid;
    uint32_t gid;
    const uint32_t* groups; /* supplementary groups */
    size_t groupCount;
} ZN_SPAWN_USER;

typedef struct znSpawnAttr {
    int priority;  /* 0 most urgent, 255 least; below 100 only where ns.h allows it */
    int stackSize; /* stack size in bytes */
    int options;   /* process options */
    int taskOptions;
    nsid_t ns;       /* -1: not set; znSpawn then fails */
    const char* cwd; /* not copied; NULL: "/" */
    short flags;
    const ZN_SPAWN_USER* user; /* not copied; NULL: the user of the namespace's configuration */
} znSpawnAttr;

#define ZN_SPAWN_OPT_LOADED 0x40 /* process option: return when the program is loaded */

/* Set every field to its default (priority 100, stack 0, namespace -1). */
STATUS znSpawnAttrInit(znSpawnAttr* attr);
STATUS znSpawnAttrDestroy(znSpawnAttr* attr);

/*
 * Setters. OK, or ERROR with EINVAL for an invalid value (a priority outside 0..255, a negative
 * stack size or namespace, a working directory that is not absolute); the record is then unchanged.
 * Process options, task options and flags are stored but have no effect on Linux.
 */
STATUS znSpawnAttrSetPriority(znSpawnAttr* attr, int priority);
STATUS znSpawnAttrSetStackSize(znSpawnAttr* attr, int stackSize);
STATUS znSpawnAttrSetOptions(znSpawnAttr* attr, int options);
STATUS znSpawnAttrSetTaskOptions(znSpawnAttr* attr, int taskOptions);
STATUS znSpawnAttrSetNamespace(znSpawnAttr* attr, nsid_t ns);
STATUS znSpawnAttrSetCwd(znSpawnAttr* attr, const char* cwd);
STATUS znSpawnAttrSetFlags(znSpawnAttr* attr, short flags);
STATUS znSpawnAttrSetUser(znSpawnAttr* attr, const ZN_SPAWN_USER* user);

/*
 * Start the program `path` (a host path at or below the namespace's root) inside the namespace,
 * with `argv` and `envp` (NULL-terminated; `envp` may be NULL for an empty environment). Returns
 * when the program has been loaded or has failed to load.
 *
 * The process inherits the caller's descriptors 0 to 2 and no others. A standard stream that is
 * closed, is close-on-exec or is the null device is replaced by the container's null device. If
 * descriptor 0 is a terminal that belongs to no session, it becomes the controlling terminal. If
 * the user is not root, pipes and such a terminal are given to the user, so that the program can
 * open them again.
 *
 * The process starts with default signal actions, an empty signal mask, default scheduling, the CPU
 * affinity of the namespace's owner, the working directory of `attr`, and, as the namespace's
 * configuration says: user, capabilities, no-new-privileges, umask, resource limits, out-of-memory
 * score, control group, and the filter of its system calls. The defaults are: user root, the
 * default capabilities (none for another user), no-new-privileges, umask 022, the caller's resource
 * limits and out-of-memory score, and the default filter, an allow-list. It may use at most half of
 * the queue memory. A system call through another interface than the native one (32-bit programs)
 * terminates the program with SIGSYS under the default filter.
 *
 * If `path` does not exist and argv[0] has no "/", the program is looked up in the PATH of `envp`.
 *
 * OK with the process id in `pid`, or ERROR with errno set: ESRCH (the namespace no longer exists),
 * EBUSY (it is suspended), ENOENT, EACCES, ENOEXEC and similar errors from loading the program,
 * ENOTDIR or ENOENT for the working directory, EPERM without the necessary rights. No child is left
 * then.
 */
STATUS znSpawn(pid_t* pid, const char* path, const znSpawnAttr* attr, char* const* argv,
               char* const* envp);

#ifdef __cplusplus
}
#endif
#endif
