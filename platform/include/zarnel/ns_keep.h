/*
 * ns_keep.h - namespaces that outlive the process that owns them, so that another process can
 * replace it: for upgrades of the daemon while containers run. Optional: ENOTSUP.
 *
 * Without these calls a namespace ends with its owner (ns.h). The owner decides for each namespace,
 * when it is complete, that it is to be kept. It gives a note with it, which the next owner gets
 * back. What keeps a namespace alive is then also held outside the owner: by a service manager, if
 * the owner has one that holds descriptors, else by a process that does nothing else and that no
 * other process can reach. Records of kept namespaces are files that are accessible to root only.
 *
 * On Linux what is held are the owner's ends of the sockets of keepers.
 */
#ifndef ZARNEL_NS_KEEP_H
#define ZARNEL_NS_KEEP_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A service manager that holds descriptors for this process, also after its end. `held` are those
 * that it has handed back to this process; the calls below take ownership of them.
 */
typedef struct znKeepManager {
    STATUS (*store)(const char* name, int descriptor);
    void (*drop)(const char* name);
    const int* held;
    size_t heldNum;
} znKeepManager;

/* Names of descriptors begin with this text. */
#define ZN_KEEP_PREFIX "zn-"

/*
 * To be called once, before the first namespace is created and before znnsAdopt: find out what
 * earlier owners have kept, and prepare keeping namespaces, with the manager if `manager` is not
 * NULL and has functions. OK, or ERROR with errno set; nothing can be kept then.
 */
STATUS znnsKeepOpen(const znKeepManager* manager);

/*
 * Keep the namespace, which must be sealed, when this process ends. `program` is the process id of
 * its program, 0 if there is none; `note` is for the next owner. To be called again when one of
 * them has changed. ERROR with errno set: what was recorded before remains.
 */
STATUS znnsKeep(nsid_t ns, pid_t program, const void* note, size_t size);

/* A namespace that was kept by an earlier owner. */
typedef struct znKept {
    nsid_t ns;
    BOOL live;        /* FALSE: it has ended in the meantime, and can only be deleted */
    pid_t program;    /* 0 also if that process has ended */
    const void* note; /* valid during the call only */
    size_t noteSize;
} znKept;

/*
 * Take over the namespaces that were kept. Each is given to `accept`, which may not call functions
 * of this header and returns FALSE for one that it does not want. A namespace is refused whose
 * record is missing, damaged or from an incompatible version, or whose processes are not those of
 * the record. `refused` is called for each, with the name that znnsRootfsCreate was given ("" if it
 * is not known) and the reason in English. All refused namespaces are ended. Returns the number of
 * namespaces taken over.
 */
int znnsAdopt(BOOL (*accept)(const znKept* kept, void* context),
              void (*refused)(const char* name, nsid_t ns, const char* reason, void* context),
              void* context);

/*
 * For an owner that keeps nothing: end all namespaces that were kept by earlier owners, and remove
 * what was recorded of them. To be called before znnsRecover. Returns whether there was anything.
 */
BOOL znnsKeptEnd(const znKeepManager* manager);

/*
 * Called when the owner stops and leaves its namespaces to the next one: end those that are not
 * kept, and wait for the end of those that were deleted, as znnsShutdown does. Returns the number
 * of namespaces that were left.
 */
int znnsLeave(void);

#ifdef __cplusplus
}
#endif
#endif
