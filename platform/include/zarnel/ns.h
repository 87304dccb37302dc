/*
 * ns.h - the namespace service.
 *
 * A namespace isolates processes: they see its root as "/", its mounts, only each other, and none
 * of the host's queues. The process that creates namespaces owns them: when it ends, for whatever
 * reason, all processes in them are killed and all their mounts are gone. Other processes may spawn
 * into a namespace by its id (spawn.h). Ids are not reused: an id never leads to a namespace
 * created after the one it named has ended.
 *
 * On Linux each namespace is a keeper process: PID 1 of a new PID namespace, with mount, IPC, UTS,
 * cgroup and network namespaces of its own unless its configuration says otherwise. The keeper
 * stays in the host's user namespace; programs may run in one of their own. The network namespace
 * has a loopback interface only. Each namespace has a control group, if the machine has them. The
 * keeper sets up root and mounts by descriptor, so that no symbolic link in a root file system can
 * lead a privileged call outside.
 *
 * All calls are for the owning process, may be made from any of its tasks, and wait for the
 * keeper's answer (a few seconds at most). Signal numbers are those of Zarnel (signal.h).
 */
#ifndef ZARNEL_NS_H
#define ZARNEL_NS_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Namespace types. There is only one, whose name is Zarnel's; the platform defines what it
 * consists of. */
typedef enum znNamespaceType { ZNNS_TYPE_IOS = 0, ZNNS_NUM_TYPES = 1 } znNamespaceType;

/*
 * Create a namespace. Returns its id, or -1 with errno set. `flags` has no effect on Linux.
 */
nsid_t znnsCreate(int flags);

/*
 * Create a namespace as the configuration document (OCI config.json) says; NULL: as znnsCreate. Its
 * members "process", "root.readonly" and "linux" decide which of the kernel's namespaces are new,
 * shared or joined, and with which user, rights, limits and filter programs run. `name` becomes
 * part of the control group's name. Returns the id, or -1 with errno set. If the document was
 * refused, `reason` (`size` bytes, ZNNS_REASON_MAX are enough) says which member and why: EINVAL
 * (wrong type or value), ENOTSUP (not supported), EPERM (more than containers have by default, and
 * not allowed by znnsPrivilegedAllow). Otherwise `reason` is unchanged.
 */
nsid_t znnsCreateConfigured(int flags, const char* name, const char* document, char* reason,
                            size_t size);

#define ZNNS_REASON_MAX 320

/*
 * Check a configuration as znnsCreateConfigured does, without creating anything. OK, or ERROR with
 * errno set and `reason`, "member: why", as described there; EPERM whatever znnsPrivilegedAllow
 * says.
 */
STATUS znnsConfigurationCheck(const char* document, char* reason, size_t size);

/*
 * Call `visit` for each capability that a configuration can name, with its name ("CAP_CHOWN") and
 * whether containers have it by default.
 */
void znnsCapabilitiesEach(void (*visit)(const char* name, BOOL byDefault, void* context),
                          void* context);

/*
 * Apply what the configuration says about the finished root: devices, kernel parameters, hidden and
 * read-only paths, read-only root. To be called when all mounts have been made and before the first
 * program is spawned; further calls have no effect. ERROR with errno set, and `reason` as above.
 */
STATUS znnsSeal(nsid_t ns, char* reason, size_t size);

/*
 * Set a function that is called, on the calling task, when znnsCreateConfigured refuses a
 * configuration: with the name it was given and the reason. NULL: none. It must not call functions
 * of this header.
 */
void znnsRefusalListenerSet(void (*refused)(const char* name, const char* reason));

/* Set whether configurations may give containers more than the defaults. Initially they may not. */
void znnsPrivilegedAllow(BOOL allowed);

/*
 * Whether each namespace created from now on gets a user namespace with users of the host that no
 * other namespace of this process has, unless its configuration has mappings. Default: FALSE. OK,
 * or ERROR with errno set if a user namespace cannot be created; nothing is changed then.
 */
STATUS znnsUsersMap(BOOL mapped);

/*
 * Make `rootPath` the root of the namespace, mounted nodev and nosuid. /proc, /dev and /sys are
 * mounted in it if the tree has directories of these names; nothing is written to the tree. On
 * ERROR (errno set) the namespace is deleted, and so is `rootPath` if it is the writable overlay
 * device of `name`.
 */
STATUS znnsRootfsCreate(nsid_t ns, const char* rootPath, const char* name);

/*
 * Mount `source` at `destination` inside the root. `type`, `source` and `options` (a
 * NULL-terminated list) may be NULL.
 *
 * Type "bind", or an option "bind" or "rbind", binds the host's `source`; so does a type of
 * "unknown", "" or NULL if `source` exists on the host. "tmpfs", "proc", "sysfs", "devpts",
 * "mqueue" and other types are mounted as such. Options that are mount flags are applied as flags,
 * all others are passed to the file system. Binds are nodev and nosuid unless the options contain
 * "dev" or "suid".
 *
 * A missing mount point is created inside the root, also if it is the missing target of a symbolic
 * link. An empty or NULL `destination` means a volume inside the root itself: nothing is mounted,
 * and the result is OK. ERROR with errno set; nothing is mounted then. EINVAL: the namespace has no
 * root yet, the `source` of a bind is not an absolute path, or `destination` resolves to the root
 * itself.
 */
STATUS znnsMount(nsid_t ns, const char* rootPath, const char* source, const char* destination,
                 const char* type, const char* const* options);

/* Undo a znnsMount with the same six arguments. */
STATUS znnsUmount(nsid_t ns, const char* rootPath, const char* source, const char* destination,
                  const char* type, const char* const* options);

/*
 * Undo znnsRootfsCreate: processes can no longer be spawned into the namespace, and if its root was
 * a writable overlay device, that device is removed (its directories stay). If another process
 * holds the lock of the devices, the device stays, unused, until znnsReap removes it.
 */
STATUS znnsRootfsDestroy(nsid_t ns, const char* rootPath, const char* name);

/* Kill all processes in the namespace and delete it. ERROR with EINVAL for an unknown id. */
STATUS znnsDelete(nsid_t ns);

/*
 * Send a signal to all processes in the namespace with one kernel call. OK also if there are none.
 */
STATUS znnsKill(nsid_t ns, int signo);

/*
 * Send a signal to the process `handle`, which must be in the namespace. ERROR with ESRCH for
 * handle 0, for a process that has ended (reaped or not) and for one outside this namespace; EINVAL
 * for an unknown signal.
 */
STATUS znnsProcessKill(nsid_t ns, OBJ_HANDLE handle, int signo);

/*
 * Report whether the namespace contains a live process or one is expected (znnsExpect). Zombies do
 * not count.
 */
STATUS znnsInUse(nsid_t ns, BOOL* inUse);

/*
 * Tell the service that the process `caller` (0: unknown) is about to start a program in the
 * namespace. The namespace then counts as in use until that spawn has succeeded or failed, until
 * the caller ends without having started it, or for two seconds. ERROR with EINVAL for an unknown
 * id, or with the error that prevented writing the namespace's record; no spawn is expected then.
 */
STATUS znnsExpect(nsid_t ns, pid_t caller);

/*
 * Called by the announced process, which may be another one than the owner, if it will not spawn.
 * Not needed after znSpawn, which records its own end. ERROR if there is no such namespace.
 */
STATUS znnsExpectEnd(nsid_t ns);

/*
 * Set whether programs in the namespace may get a priority more urgent than normal. Initially they
 * may not, and are spawned at normal priority instead. The namespace must have a root.
 */
STATUS znnsUrgentAllow(nsid_t ns, BOOL allowed);

/*
 * Called when the daemon starts: end the namespaces left by an owner that died, except for those
 * that this process has taken over (ns_keep.h). All are killed
 * first, then all are waited for together, for at most one second. Returns the number of those that
 * have not ended by then. They contain no live process: they wait until the parents of their
 * processes, which are clients, reap them.
 */
int znnsRecover(void);

/*
 * Called when the daemon stops: kill all processes in its namespaces at once. After this call,
 * deleting a namespace does not wait for its end; znnsShutdown waits for all of them.
 */
void znnsKillAll(void);

/*
 * End all namespaces of this process. Returns the number of those that have not ended within two
 * seconds.
 */
int znnsShutdown(void);

/*
 * Spare namespaces are made ahead, so that znnsCreate and znnsCreateConfigured need not wait for
 * the kernel to create one. They are used for configurations in which all of the kernel's
 * namespaces are new and there is no user namespace; others are created as without spares. A spare
 * contains nothing but what each new namespace contains, has no id, is not recorded, is used once,
 * and ends with the owner or by znnsShutdown. No result depends on whether there is a spare: one
 * that cannot be made is not reported, and one that has ended is not used.
 */
#define ZNNS_SPARES_MAX 16

/*
 * Set how many spare namespaces there should be, at most ZNNS_SPARES_MAX. Initially 0. With 0 it
 * ends those that exist, which takes a second at most.
 */
void znnsSparesSet(unsigned count);

/*
 * Begin to make the spares that are missing, and end those that are no longer like new ones. To be
 * called from time to time when the owner has nothing else to do. Does not wait until they are
 * made.
 */
void znnsSparesMake(void);

/*
 * Release what is still held for namespaces that have ended since they were deleted, and remove
 * overlay devices that could not be removed because they were locked. Creating and deleting
 * namespaces do the former, too; this call is for an owner that does neither for a while.
 */
void znnsReap(void);

#ifdef __cplusplus
}
#endif
#endif
