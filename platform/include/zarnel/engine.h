/*
 * engine.h - containers without a daemon, for container engines (podman, containerd).
 *
 * The container's own program is the first process of its PID namespace. Who creates a container
 * may end afterwards: the first process is then reparented to the creator's subreaper or to
 * process 1. What is known about a container is kept by the caller (a process, a control group, a
 * directory), not here.
 *
 * Containers follow their configuration document (OCI config.json) alone: no restrictions are added
 * to it, and unsupported settings are refused with an error that names them. The members "root",
 * "mounts", "hooks", "annotations" and, in "process", "args", "env" and "cwd" are read by the
 * caller.
 *
 * All calls are for programs with one thread and with root's rights. On failure they return ERROR
 * or -1 with errno set. Functions with a parameter `reason` also write an error message to it
 * (`size` bytes; ZN_ENGINE_REASON_MAX are enough).
 */
#ifndef ZARNEL_ENGINE_H
#define ZARNEL_ENGINE_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZN_ENGINE_REASON_MAX 512
#define ZN_ENGINE_DESCRIPTORS_MAX 240 /* that a program gets besides the standard streams */

/* `count` ids from `inside` up are those from `outside` up. */
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
    /* Of a bind: ids of files and those that they are shown with. None: with the option "idmap" or
     * "ridmap", those of the container's user namespace. */
    const ZN_ENGINE_IDS* uids;
    size_t uidCount;
    const ZN_ENGINE_IDS* gids;
    size_t gidCount;
} ZN_ENGINE_MOUNT;

/* A program. It gets the caller's standard streams, or a terminal. */
typedef struct znEngineProgram {
    const char* cwd; /* absolute; created if missing */
    char* const* argv;
    char* const* envp;
    /* Number of descriptors, from 3 up, that it also gets; those that are closed or close-on-exec
     * are skipped. */
    int descriptors;
    int console;   /* connected socket that gets the other end of its terminal; -1: no terminal */
    unsigned rows; /* of the terminal; 0: not set */
    unsigned columns;
    BOOL keepKeyring; /* FALSE: it gets a session keyring of its own */
    const char* file; /* its path; NULL: argv[0] is looked up in PATH */
    int input;        /* its standard input; 0 is that of the caller */
    int output;       /* its standard output; 0: that of the caller */
} ZN_ENGINE_PROGRAM;

/* A process, also if its id is used again. */
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
    const char* group; /* path of the control group, which must not exist or be empty */
    int directory;     /* where the socket for the start is created; no container may reach it */
    ZN_ENGINE_PROGRAM program;
    /*
     * If not NULL: called for hooks when the root with its mounts is made, before it is entered.
     * The container's mount namespace then shows the host's tree, with the container's root and its
     * mounts at `root`. ERROR ends the creation.
     */
    STATUS (*prepared)(const ZN_ENGINE_PROCESS* process, void* context);
    void* context;
    const char* mark; /* for znEngineGroupRemove: no other container has the same; NULL: none */
} ZN_ENGINE_PLAN;

/* Check a configuration without creating anything. */
STATUS znEngineCheck(const char* document, char* reason, size_t size);

/* Whether documents may name this capability ("CAP_KILL"). Others are refused. */
BOOL znEngineCapabilityKnown(const char* name);

/*
 * Create a container whose first process waits for znEngineStart. Returns a descriptor: when it is
 * closed before znEngineRelease, also by the caller's death, the container ends. The program is
 * looked up in this call; if it is not found, `reason` contains the message that engines expect:
 * exec: "sh": executable file not found in $PATH. On failure nothing is left.
 */
int znEngineCreate(const ZN_ENGINE_PLAN* plan, ZN_ENGINE_PROCESS* process, char* reason,
                   size_t size);

/* Detach the container from its creator, so that it survives the creator's end. Closes the
 * descriptor. */
STATUS znEngineRelease(int container, char* reason, size_t size);

/*
 * Start the program of the container whose first process is `process` and whose start socket is in
 * `directory`. Returns when it runs. ERROR with ESRCH if no container waits there, ETIMEDOUT if the
 * process does not answer (it may be stopped), ECHILD if it was killed before it ran the program.
 */
STATUS znEngineStart(const ZN_ENGINE_PROCESS* process, int directory, char* reason, size_t size);

/* Whether a container waits for its start there. */
BOOL znEngineWaits(int directory);

/*
 * Run a further program in the container of `process`, as a child of the caller, confined as
 * `document` says in "process" and "linux.seccomp". `group`: the container's control group, ""
 * for none. Returns when it runs.
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

/* Whether the process still runs; one that has ended and was not waited for does not. */
BOOL znEngineProcessAlive(const ZN_ENGINE_PROCESS* process);

/* A close-on-exec descriptor that is readable once the process has ended. -1 with ESRCH if it has. */
int znEngineProcessOpen(const ZN_ENGINE_PROCESS* process);

/* Wait up to so many milliseconds for the end of the process. TRUE if it has ended. */
BOOL znEngineProcessEnded(const ZN_ENGINE_PROCESS* process, int milliseconds);

/* Send a signal, by the host's number. ERROR with ESRCH if the process has ended. */
STATUS znEngineProcessSignal(const ZN_ENGINE_PROCESS* process, int hostSignal);

/* Control groups by path. They fail with ENOENT if there is none. */
STATUS znEngineGroupFreeze(const char* group, BOOL frozen);
STATUS znEngineGroupFrozen(const char* group, BOOL* frozen);
STATUS znEngineGroupSignal(const char* group, int hostSignal); /* each process in it */
STATUS znEngineGroupProcesses(const char* group, void (*visit)(pid_t pid, void* context),
                              void* context);
/* Change the limits given in `resources`, a JSON object in the format of "linux.resources". */
STATUS znEngineGroupLimit(const char* group, const char* resources, char* reason, size_t size);
/*
 * Remove the group of a container that was created with this mark. If it has the mark, and no group
 * below it with another one has processes, what is in it is killed first. A group with another mark
 * belongs to another container and stays. Without one, it is removed if nothing is in it. OK if it
 * was removed or there is none; EBUSY if it stays.
 */
STATUS znEngineGroupRemove(const char* group, const char* mark);

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

/* Connect to the socket at `path`. A close-on-exec descriptor, or -1. */
int znEngineConnect(const char* path);

#ifdef __cplusplus
}
#endif
#endif
