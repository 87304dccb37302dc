/*
 * process_list.h - lists the processes of a container, as seen from the host.
 *
 * The data describes a moment and may be outdated when it is used: use it for reports, not for
 * decisions.
 */
#ifndef ZARNEL_PROCESS_LIST_H
#define ZARNEL_PROCESS_LIST_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Write a text that identifies the PID namespace of `pid` to `name`, truncated to `size` bytes (64
 * are enough). Two processes are in the same namespace if and only if these texts are equal. OK, or
 * ERROR with errno set: ENOENT if there is no such process.
 */
STATUS znProcessNamespace(pid_t pid, char* name, size_t size);

typedef struct znProcessInfo {
    pid_t pid;           /* on the host */
    pid_t innerPid;      /* in its own namespace; 1: the namespace's first process */
    pid_t parent;        /* parent process id on the host */
    char state;          /* state letter, as printed by ps */
    uint64_t memoryKb;   /* resident set size */
    const char* command; /* arguments separated by spaces, or "[name]"; valid during the call */
} ZN_PROCESS_INFO;

/*
 * Call `visit` for each process in the PID namespace identified by `nameSpace`, a text from
 * znProcessNamespace. Processes that end during the call are skipped. OK, or ERROR with errno set
 * if the processes cannot be listed, or with ENOMEM.
 */
STATUS znProcessEach(const char* nameSpace,
                     void (*visit)(const ZN_PROCESS_INFO* process, void* context), void* context);

/*
 * Write the path of the executable of this process to `path`. OK, or ERROR with errno set:
 * ENAMETOOLONG if it does not fit in `size` bytes.
 */
STATUS znProgramPath(char* path, size_t size);

#ifdef __cplusplus
}
#endif
#endif
