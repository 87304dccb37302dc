/*
 * ns.h - the namespace service.
 *
 * A namespace is a world of its own for processes: they see its root as "/", its mounts,
 * only each other, and no queue of the host. The process that creates namespaces owns
 * them: when it ends, however it ends, every process in them is killed and every mount in
 * them is gone. Other processes may spawn into a namespace by its id (spawn.h), which
 * never leads into a namespace that took the place of a dead one.
 *
 * On Linux each namespace is a keeper process (PID 1 of a new PID namespace with mount,
 * IPC, UTS and cgroup namespaces of its own; network and users are the host's). Root
 * and mounts are made by descriptor, inside the keeper, so that no link in a root
 * filesystem leads a privileged call outside.
 *
 * All calls are for the owning process, may run in any task of it, and wait for the keeper's
 * answer (a few seconds at most). Signal numbers are the platform's (signal.h).
 */
#ifndef ZARNEL_NS_H
#define ZARNEL_NS_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The kinds of namespaces there are. Every namespace is of the one kind; no call takes it. */
typedef enum znNamespaceType { ZNNS_TYPE_IOS = 0, ZNNS_NUM_TYPES = 1 } znNamespaceType;

/* A new namespace, or -1 with the task error number set. `flags` has no meaning on Linux. */
nsid_t znnsCreate(int flags);

/*
 * Make `rootPath` the root of the namespace. The tree is seen without devices and set-id
 * programs. Where the directories exist in it, /proc, /dev and /sys are provided inside the
 * namespace; nothing is written to the tree. On ERROR (task error number set) the namespace
 * is gone, and if `rootPath` is the writable overlay device of `name`, that device too.
 */
STATUS znnsRootfsCreate(nsid_t ns, const char* rootPath, const char* name);

/*
 * Mount `source` at `destination` inside the root. `type`, `source` and `options` (a
 * NULL-terminated list) may be NULL. Type "bind", or an option "bind" or "rbind", binds the
 * host's `source`; so does a type that is "unknown", "" or NULL when `source` exists on the
 * host. "tmpfs", "proc", "sysfs", "devpts", "mqueue" and other kernel types mount as such. Flag
 * options become flags, the rest is passed to the filesystem. Binds are made nodev and nosuid
 * unless the options say "dev" or "suid". A missing mount point is made inside the root, also where
 * a link leads that has no target yet. An empty or NULL `destination` names a volume inside the
 * root itself: nothing is mounted, OK. ERROR with the task error number set; nothing is then
 * mounted. EINVAL: the namespace has no root yet, the `source` of a bind is no absolute path, or
 * `destination` is the root itself, by whatever name.
 */
STATUS znnsMount(nsid_t ns, const char* rootPath, const char* source, const char* destination,
                 const char* type, const char* const* options);

/* Undo that mount; the same six values. */
STATUS znnsUmount(nsid_t ns, const char* rootPath, const char* source, const char* destination,
                  const char* type, const char* const* options);

/*
 * Undo znnsRootfsCreate: no process can be spawned into the namespace any more, and a
 * writable overlay device that was its root is removed (its directories stay). While another
 * process has the devices locked the device stays, unused; znnsReap then removes it.
 */
STATUS znnsRootfsDestroy(nsid_t ns, const char* rootPath, const char* name);

/* Kill whatever lives in the namespace and delete it. ERROR with EINVAL for an unknown id. */
STATUS znnsDelete(nsid_t ns);

/* Send a signal to every process in the namespace, all at once. OK also when none is there. */
STATUS znnsKill(nsid_t ns, int signo);

/*
 * Send a signal to the process `handle`, which must live in the namespace. ERROR with ESRCH
 * for handle 0 and for a process that has ended (an unreaped one too) or is not of this
 * namespace, EINVAL for a signal the platform does not know.
 */
STATUS znnsProcessKill(nsid_t ns, OBJ_HANDLE handle, int signo);

/*
 * Report whether any process lives in the namespace, or is expected (below); processes that ended
 * do not count.
 */
STATUS znnsInUse(nsid_t ns, BOOL* inUse);

/*
 * The process `caller` (0: not known) was told to spawn into the namespace, which counts as in use
 * until the spawn has succeeded or failed, the caller has ended before it began, or two seconds
 * have passed. ERROR with EINVAL for an unknown id, or a number saying why the namespace's record
 * cannot be written; nobody is then expected.
 */
STATUS znnsExpect(nsid_t ns, pid_t caller);

/*
 * For the caller, in any process: it will not spawn. znSpawn says by itself that it is over. ERROR
 * when there is no such namespace.
 */
STATUS znnsExpectEnd(nsid_t ns);

/*
 * Whether programs in the namespace may get a priority more urgent than normal; at first they may
 * not, and are spawned at normal priority instead. For a namespace that has a root.
 */
STATUS znnsUrgentAllow(nsid_t ns, BOOL allowed);

/*
 * For a daemon that starts: end the namespaces that a dead owner left behind. All are killed
 * first and then waited for together, for a second at most. Returns how many have not ended
 * by then. Nothing lives in those: they wait for a client to reap its program.
 */
int znnsRecover(void);

/*
 * For a daemon that stops: kill what lives in its namespaces, all at once. From now on the
 * end of each is no longer waited for, only that of all of them by znnsShutdown.
 */
void znnsKillAll(void);

/* End all namespaces of this process; how many have not ended within two seconds. */
int znnsShutdown(void);

/*
 * Give back what namespaces that ended since were still waiting for, and remove overlay devices
 * that were locked when they should have gone. Creating and deleting do the first, too; for an
 * owner that does neither.
 */
void znnsReap(void);

#ifdef __cplusplus
}
#endif
#endif
