/*
 * spawn.h - starting a user-mode process, POSIX posix_spawn with the kernel's attributes.
 *
 * Usage: znSpawnAttrInit, any setters, znSpawn, znSpawnAttrDestroy. A record belongs to one
 * task at a time. The child is an ordinary child of the caller (waitpid works).
 */
#ifndef ZARNEL_SPAWN_H
#define ZARNEL_SPAWN_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct znSpawnAttr {
    int priority;  /* 0 most urgent .. 255 least; above normal (100) only where allowed, see ns.h */
    int stackSize; /* bytes of user stack */
    int options;   /* process options */
    int taskOptions;
    nsid_t ns;       /* -1: none yet, which cannot be spawned into */
    const char* cwd; /* borrowed; NULL: "/" */
    short flags;
} znSpawnAttr;

#define ZN_SPAWN_OPT_LOADED 0x40 /* process option: return only once the program is loaded */

/* Every field at its default (priority 100, stack 0, namespace -1). */
STATUS znSpawnAttrInit(znSpawnAttr* attr);
STATUS znSpawnAttrDestroy(znSpawnAttr* attr);

/*
 * Setters: OK, or ERROR with EINVAL for a value that cannot be carried (a priority outside
 * 0..255, a negative stack size or namespace, a working directory that is not absolute); the
 * record is then as before. Process options, task options and flags are carried and mean nothing
 * on Linux.
 */
STATUS znSpawnAttrSetPriority(znSpawnAttr* attr, int priority);
STATUS znSpawnAttrSetStackSize(znSpawnAttr* attr, int stackSize);
STATUS znSpawnAttrSetOptions(znSpawnAttr* attr, int options);
STATUS znSpawnAttrSetTaskOptions(znSpawnAttr* attr, int taskOptions);
STATUS znSpawnAttrSetNamespace(znSpawnAttr* attr, nsid_t ns);
STATUS znSpawnAttrSetCwd(znSpawnAttr* attr, const char* cwd);
STATUS znSpawnAttrSetFlags(znSpawnAttr* attr, short flags);

/*
 * Start `path` (a host path at or under the namespace's root) inside the namespace, with `argv`
 * and `envp` (NULL-terminated; envp may be NULL for an empty environment). Returns once the
 * program is loaded or has failed to load.
 *
 * The child has the caller's descriptors 0 to 2 and no other; in place of one that is closed, would
 * be on exec, or is the null device, it has the container's null device. It has default signal
 * actions, an empty signal mask, umask 022, default scheduling, the processors that the namespace's
 * owner may use, the container capabilities with no-new-privileges, and the attribute's working
 * directory. Resource limits, the control group and the out-of-memory score stay the caller's, but
 * for queue memory, of which it can use at most half.
 *
 * Its system calls are filtered: those that namespaces do not confine, that are large and seldom
 * needed, or that need rights no container has, fail with EPERM. A call by another interface than
 * the processor's own (32-bit programs) ends the program by SIGSYS.
 *
 * OK with the child's id in `pid`, or ERROR with the task error number saying why: ESRCH (the
 * namespace is gone), ENOENT, EACCES, ENOEXEC and the like from loading the program, ENOTDIR
 * or ENOENT from the working directory, EPERM without the rights. No child is then left.
 */
STATUS znSpawn(pid_t* pid, const char* path, const znSpawnAttr* attr, char* const* argv,
               char* const* envp);

#ifdef __cplusplus
}
#endif
#endif
