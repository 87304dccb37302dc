/*
 * probe.h - a program that runs in a container and tries every way out.
 *
 * Each check prints one line, "ok NAME" or "ESCAPED NAME: what happened"; the last line is the
 * sum. The exit status is 0 only if nothing worked. Every attempt is harmless where it works (a
 * write is only opened, a setting is set to what it is), so that the probe can be run unconfined to
 * see that its checks notice.
 *
 * It is one static program without a dependency. What is to be looked for on the host comes in
 * environment variables (see setting() below), none of which needs to be there:
 *   PROBE_SECRET    path of a file of the host
 *   PROBE_PIDS      host process ids, separated by ","
 *   PROBE_QUEUES    message queues of the host, separated by ","
 *   PROBE_SYSV      "SHM-KEY,SHM-ID,MSG-KEY,MSG-ID,SEM-KEY,SEM-ID" of the host, keys and ids
 * decimal PROBE_KEY       "ID,NAME" of a key in the host root's key ring PROBE_DISK "MAJOR,MINOR"
 * of a disk of the host PROBE_NODES     device nodes in the image, separated by "," PROBE_CWD the
 * working directory it must have been started in
 */
#ifndef PROBE_H
#define PROBE_H

#include <stdbool.h>
#include <stddef.h>

/* The capabilities of a container's process. */
#define PROBE_CAPABILITIES 0x800405fbULL

/* A directory of the probe's own, to mount on. */
#define PROBE_PLACE "/tmp/probe-place"

/* The value of PROBE_`name`, "" when it is not set. */
const char* setting(const char* name);

/* The next element of a list separated by ","; NULL at its end. */
char* next_element(char** list);

/* How a check ended. `held` false prints the text as the reason. */
void verdict(const char* name, bool held, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/* The check `name` holds because the kernel has nothing of the kind. */
void not_there(const char* name);

/*
 * The check `name` holds if the call whose result this is failed with one of the error numbers
 * (0 ends the list) or is not in this kernel.
 */
void refused(const char* name, long result, ...);

/* The same for what changes the caller: `attempt` runs in a child, which then ends. */
struct attempt {
    const char* name;
    long (*attempt)(void);
    int errors[4]; /* the refusals expected; 0 ends the list */
};
void refused_each(const struct attempt* attempts, size_t count);

/* Runs `work` in a child: its exit status, or 128 and the signal that ended it. */
int in_child(int (*work)(void));

/* A field of /proc/self/status, without leading blanks; "" if it is not there. */
const char* status_field(const char* name);

/* The groups of checks. */
void check_identity(void);     /* what the process was given */
void check_programs(void);     /* what it can gain by running something */
void check_root(void);         /* the tree, and ways above it */
void check_mounts(void);       /* what is mounted, and how */
void check_kernel_files(void); /* /proc and /sys */
void check_devices(void);
void check_processes(void);       /* the namespace's keeper, and processes of the host */
void check_ipc(void);             /* queues, System V objects, sockets, key rings */
void check_namespace_calls(void); /* parts of check_calls */
void check_mount_calls(void);
void check_filtered_calls(void);
void check_calls(void); /* system calls that belong to the host's root */

/* Ways into a process (processes.c): the result of the call that was let through, or -1. */
long probe_open(const char* path, int flags); /* and read a byte */
long probe_seize(int pid);
long probe_read_memory(int pid);
long probe_take_descriptor(int pid, int fd);

/* Makes message queues until no more can be made, and keeps them until the file /tmp/stop is there.
 */
void fill_queues(void);

/*
 * Attacks every process that comes into the namespace until the file /tmp/stop is there. Prints how
 * often it tried one that was still joining.
 */
void watch_joins(void);

#endif
