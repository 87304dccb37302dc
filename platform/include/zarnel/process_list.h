/*
 * process_list.h - the processes of a container, as the host sees them.
 *
 * What is read here belongs to the processes themselves and may have changed by the time it is
 * looked at: for reports, not for decisions.
 */
#ifndef ZARNEL_PROCESS_LIST_H
#define ZARNEL_PROCESS_LIST_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Write the name of the process namespace that `pid` lives in to `name`, cut to `size` bytes (64
 * are enough). Two processes share a namespace exactly if the names are equal. OK, or ERROR with
 * the task error number set: ENOENT when there is no such process.
 */
STATUS znProcessNamespace(pid_t pid, char* name, size_t size);

typedef struct znProcessInfo {
    pid_t pid;         /* as the host counts */
    pid_t innerPid;    /* as the namespace counts; 1 is the namespace's own first process */
    pid_t parent;      /* as the host counts */
    char state;        /* a letter, as ps prints it */
    uint64_t memoryKb; /* resident */
    const char*
        command; /* the arguments with blanks between them, or "[name]"; valid in the call */
} ZN_PROCESS_INFO;

/*
 * Call `visit` for each process of the namespace that znProcessNamespace gave this name. Processes
 * that end meanwhile are left out. OK, or ERROR with the task error number set when the processes
 * cannot be listed, or with ENOMEM.
 */
STATUS znProcessEach(const char* nameSpace,
                     void (*visit)(const ZN_PROCESS_INFO* process, void* context), void* context);

/*
 * Write the path of the file that this process executes to `path`. OK, or ERROR with the task error
 * number set: ENAMETOOLONG when `size` bytes do not hold it.
 */
STATUS znProgramPath(char* path, size_t size);

#ifdef __cplusplus
}
#endif
#endif
