/*
 * engine.h - containers without a daemon, for container engines (podman, containerd).
 *
 * The container's own program is the first process of its PID namespace. The process that creates a
 * container may end afterwards: the first process of the container is then reparented to the
 * creator's subreaper or to process 1. The caller keeps the state of a container (its process,
 * control group and directory); these functions keep none.
 *
 * Containers are confined only as their configuration document (OCI config.json) specifies: no
 * restrictions are added, and unsupported settings are refused with an error that names them. The
 * members "root", "mounts", "hooks", "annotations" and, in "process", "args", "env" and "cwd" are
 * read by the caller.
 *
 * Callers have one thread, and the rights of root or those of root in a user namespace. The latter
 * (znEngineRootless) cannot create device nodes, so that those of the host are bound, and device
 * rules are not applied.
 *
 * On failure calls return ERROR or -1 with errno set. Functions with a parameter `reason` also
 * write an error message to it (`size` bytes; ZN_ENGINE_REASON_MAX are enough).
 */
#ifndef ZARNEL_ENGINE_H
#define ZARNEL_ENGINE_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZN_ENGINE_REASON_MAX 512
#define ZN_ENGINE_DESCRIPTORS_MAX 240 /* that a program gets besides the standard streams */

/* Maps `count` ids that begin with `inside` to the ids that begin with `outside`. */
typedef struct znEngineIds {
    uint32_t inside;
    uint32_t outside;
    uint32_t count;
} ZN_ENGINE_IDS;

typedef struct znEngineMount {
    const char* source; /* NULL: none. Of a bind: an absolute host path */
    const char* destination;
    const char* type;           /* NULL: none */
    const char* const* options; /* NULL-terminated */
    /* For a bind: maps the owners of files to the owners that the mount shows. If empty, the option
     * "idmap" or "ridmap" selects the mappings of the container's user namespace. */
    const ZN_ENGINE_IDS* uids;
    size_t uidCount;
    const ZN_ENGINE_IDS* gids;
    size_t gidCount;
} ZN_ENGINE_MOUNT;

/*
 * `receive` gets the listener of a seccomp filter with SCMP_ACT_NOTIFY, a descriptor that is closed
 * when the call returns. The process has just got the filter, and continues when the call has
 * returned OK; if it returns ERROR, the program is not started.
 */
typedef struct znEngineListener {
    STATUS (*receive)(int listener, pid_t pid, void* context);
    void* context;
} ZN_ENGINE_LISTENER;

/* A program. It gets the caller's standard streams, or a terminal. */
typedef struct znEngineProgram {
    const char* cwd; /* absolute; created if missing */
    char* const* argv;
    char* const* envp;
    /* Number of descriptors from 3 up that it also gets. Closed and close-on-exec ones are skipped.
     */
    int descriptors;
    int console;   /* connected socket that gets the other end of its terminal; -1: no terminal */
    unsigned rows; /* of the terminal; 0: not set */
    unsigned columns;
    BOOL keepKeyring; /* FALSE: it gets a session keyring of its own */
    const char* file; /* its path; NULL: argv[0] is looked up in PATH */
    int input;        /* its standard input; 0 is that of the caller */
    int output;       /* its standard output; 0: that of the caller */
    /* Used by znEngineExec and znEngineHook only; NULL: a filter with SCMP_ACT_NOTIFY is refused */
    const ZN_ENGINE_LISTENER* listener;
    /*
     * Used by znEngineExec only: existing groups below that of the container, which the program
     * enters instead: "path", or for some hierarchies of v1 "controller[,controller]:path". "/" is
     * the container's group itself. NULL-terminated; NULL: none
     */
    char* const* subgroups;
} ZN_ENGINE_PROGRAM;

/* Identifies a process even if its id is reused. */
typedef struct znEngineProcess {
    pid_t pid;
    unsigned long long startTime; /* clock ticks since boot */
} ZN_ENGINE_PROCESS;

typedef struct znEnginePlan {
    const char* document; /* config.json */
    const char* root;     /* absolute host path; used as the root directly, without an overlay */
    const char* domain;   /* NIS domain name; NULL: not set */
    const ZN_ENGINE_MOUNT* mounts;
    size_t mountCount;
    const char* group; /* path of the control group, which must not exist or be empty; "": none */
    int directory;     /* where the socket for the start is created; no container may reach it */
    ZN_ENGINE_PROGRAM program;
    /*
     * Called to run hooks, unless NULL: the root and its mounts have been made but not entered, so
     * that the container's mount namespace still shows the host's tree, with the container's root
     * and mounts at `root`. If it returns ERROR, the creation fails.
     */
    STATUS (*prepared)(const ZN_ENGINE_PROCESS* process, void* context);
    void* context;
    const char* mark; /* for znEngineGroupRemove; unique to the container; NULL: none */
    /*
     * Called to create the control group, unless NULL: the first process exists, in the group of
     * the caller, and waits. On return, a service manager must have created the group and moved the
     * process into it, in one hierarchy at least; the creation then completes the group in all
     * others and writes the limits. If it returns ERROR, the creation fails.
     */
    STATUS (*place)(const ZN_ENGINE_PROCESS* process, void* placeContext);
    void* placeContext;
} ZN_ENGINE_PLAN;

/* Check a configuration without creating anything. */
STATUS znEngineCheck(const char* document, char* reason, size_t size);

/* Whether this capability ("CAP_KILL") is known. Documents that name an unknown one are refused. */
BOOL znEngineCapabilityKnown(const char* name);

/*
 * Create a container whose first process waits for znEngineStart. Returns a descriptor. If it is
 * closed before znEngineRelease, also because the caller ends, the container ends. The program is
 * looked up in this call; if it is not found, `reason` contains the message that engines expect:
 * exec: "sh": executable file not found in $PATH. On failure, nothing that was created remains.
 */
int znEngineCreate(const ZN_ENGINE_PLAN* plan, ZN_ENGINE_PROCESS* process, char* reason,
                   size_t size);

/*
 * Detach the container whose first process is `process`, a child of the caller, from its creator,
 * so that it survives the creator's end. Closes the descriptor.
 */
STATUS znEngineRelease(int container, const ZN_ENGINE_PROCESS* process, char* reason, size_t size);

/*
 * Start the program of the container whose first process is `process` and whose start socket is in
 * `directory`. Returns when it runs. ERROR with ESRCH if no container waits there, ETIMEDOUT if the
 * process does not answer (it may be stopped), ECHILD if it was killed before it ran the program.
 * `listener`: as in ZN_ENGINE_PROGRAM.
 */
STATUS znEngineStart(const ZN_ENGINE_PROCESS* process, int directory,
                     const ZN_ENGINE_LISTENER* listener, char* reason, size_t size);

/* Whether a container waits for its start in this state directory. */
BOOL znEngineWaits(int directory);

/*
 * Run a further program in the container of `process`, as a child of the caller, confined as
 * specified by "process" and "linux.seccomp" of `document`. `group`: the container's control group,
 * "" for none. Returns when it runs.
 */
STATUS znEngineExec(const ZN_ENGINE_PROCESS* process, const char* document, const char* group,
                    const ZN_ENGINE_PROGRAM* program, pid_t* pid, char* reason, size_t size);

/*
 * Run a hook in the namespaces of the container of `process`, as a child of the caller and in the
 * container's control group, as the first process of a process group, with `input` on its standard
 * input. With a document it is confined as the container's own program is, and its path is one of
 * the container. Without, it has the rights of the caller; this is for znEnginePlan.prepared only.
 * Returns when it runs.
 */
STATUS znEngineHook(const ZN_ENGINE_PROCESS* process, const char* document, const char* group,
                    const ZN_ENGINE_PROGRAM* hook, const char* input, pid_t* pid, char* reason,
                    size_t size);

/* The process that has this id now; startTime 0 if there is none. */
ZN_ENGINE_PROCESS znEngineProcessGet(pid_t pid);

/* Whether the process still runs. A zombie does not. */
BOOL znEngineProcessAlive(const ZN_ENGINE_PROCESS* process);

/* A close-on-exec descriptor that is readable once the process has ended. -1 with ESRCH if it has.
 */
int znEngineProcessOpen(const ZN_ENGINE_PROCESS* process);

/* Wait up to so many milliseconds for the end of the process. TRUE if it has ended. */
BOOL znEngineProcessEnded(const ZN_ENGINE_PROCESS* process, int milliseconds);

/* Send a signal, by the host's number. ERROR with ESRCH if the process has ended. */
STATUS znEngineProcessSignal(const ZN_ENGINE_PROCESS* process, int hostSignal);

/* Whether this process may create this control group and enter it. */
BOOL znEngineGroupUsable(const char* group);

/* Functions for control groups by path. They fail with ENOENT if there is no such group. */
STATUS znEngineGroupFreeze(const char* group, BOOL frozen);
STATUS znEngineGroupFrozen(const char* group, BOOL* frozen);
STATUS znEngineGroupSignal(const char* group, int hostSignal); /* each process in it */
STATUS znEngineGroupProcesses(const char* group, void (*visit)(pid_t pid, void* context),
                              void* context);
/* Change the limits given in `resources`, a JSON object in the format of "linux.resources". */
STATUS znEngineGroupLimit(const char* group, const char* resources, char* reason, size_t size);
/*
 * Remove the group of a container that was created with this mark. If the group has this mark, its
 * processes are killed first, unless a group below it has another mark and processes. A group with
 * another mark belongs to another container and is not removed. A group without a mark is removed
 * if it has no processes. OK if it was removed or does not exist, EBUSY if it stays.
 */
STATUS znEngineGroupRemove(const char* group, const char* mark);

/* The version of control groups that limits use: 1 or 2; 0: there are none. */
int znEngineGroupVersion(void);

/* The weights that cgroup v2 uses for shares and weights of v1. */
uint64_t znEngineCpuWeight(uint64_t shares);
uint64_t znEngineIoWeight(uint32_t weight);

/* A rule about devices. `major`, `minor`: -1 means any. */
typedef struct znEngineDeviceRule {
    BOOL allow;
    char type; /* 'c', 'b'; 'a': all devices and all access */
    int64_t major;
    int64_t minor;
    BOOL read;
    BOOL write;
    BOOL make;
} ZN_ENGINE_DEVICE_RULE;
/*
 * Visit the rules that a group with these `resources` (as above) gets, in order: the last one that
 * matches decides. They include those of the devices that every container has.
 */
STATUS znEngineDeviceRules(const char* resources,
                           void (*visit)(const ZN_ENGINE_DEVICE_RULE* rule, void* context),
                           void* context, char* reason, size_t size);

/*
 * The name of the driver for all devices of this type ('c', 'b') and major number, "pts", as
 * /proc/devices lists it: up to `size` bytes, of which ZN_ENGINE_DRIVER_MAX are enough. ERROR with
 * ENOENT if there is none, ERANGE if the name is longer.
 */
#define ZN_ENGINE_DRIVER_MAX 64
STATUS znEngineDeviceDriver(char type, int64_t major, char* name, size_t size);

typedef struct znEngineUse {
    uint64_t cpuNs;
    uint64_t userNs;
    uint64_t systemNs;
    uint64_t memory;
    uint64_t memoryLimit; /* UINT64_MAX: none */
    uint64_t pids;
    uint64_t pidsLimit; /* UINT64_MAX: none */
    uint64_t readBytes;
    uint64_t writtenBytes;
    uint64_t oomKills;
} ZN_ENGINE_USE;
STATUS znEngineGroupUse(const char* group, ZN_ENGINE_USE* use);

/* Whether the caller is an ordinary user, or root of a user namespace that has not all users. */
BOOL znEngineRootless(void);

/* Connect to the stream socket at `path`. A close-on-exec descriptor, or -1: with ETIMEDOUT if the
 * socket does not accept connections for ten seconds. What is sent fails after that time, too. */
int znEngineConnect(const char* path);

#ifdef __cplusplus
}
#endif
#endif
