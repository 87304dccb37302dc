/*
 * probe.h - a program that runs in a container and tries every way out.
 *
 * Each check prints one line, "ok NAME" or "ESCAPED NAME: what happened"; the last line is a
 * summary. The exit status is 0 only if every check passed. All attempts are harmless if they
 * succeed (files are opened for writing but not written to, settings are set to their current
 * value), so that the probe can be run unconfined to verify that its checks detect escapes.
 *
 * The probe is a single static program. Environment variables describe the objects of the host (see
 * setting() below); all of them are optional:
 *
 *   PROBE_SECRET    path of a file of the host
 *   PROBE_PIDS      host process ids, separated by ","
 *   PROBE_QUEUES    message queues of the host, separated by ","
 *   PROBE_SYSV      "SHM-KEY,SHM-ID,MSG-KEY,MSG-ID,SEM-KEY,SEM-ID" of the host, in decimal
 *   PROBE_SOCKET    abstract name of a listening Unix socket of the host
 *   PROBE_NETWORK   the host's network namespace, as its link in /proc reads
 *   PROBE_KEY       "ID,NAME" of a key in the key ring of the host's root
 *   PROBE_DISK      "MAJOR,MINOR" of a disk of the host
 *   PROBE_NODES     device nodes in the image, separated by ","
 *   PROBE_CWD       the working directory that the probe must be started in
 */
#ifndef PROBE_H
#define PROBE_H

#include <stdbool.h>
#include <stddef.h>

/* The capabilities of a container's process. */
#define PROBE_CAPABILITIES 0x800405fbULL

/* A directory that the probe creates to mount on. */
#define PROBE_PLACE "/tmp/probe-place"

/* Returns the value of the environment variable PROBE_`name`, "" if it is not set. */
const char* setting(const char* name);

/* Returns the next element of a list separated by ","; NULL at the end. */
char* next_element(char** list);

/* Reports the result of a check. If `held` is false, the text is printed as the reason. */
void verdict(const char* name, bool held, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/* Reports that the check `name` passed because the kernel does not have this feature. */
void not_there(const char* name);

/*
 * Reports that the check `name` passed if `result` is -1 and errno is one of the error numbers (0
 * ends the list), or says that the kernel does not have the call.
 */
void refused(const char* name, long result, ...);

/* As refused(), for calls that change the caller: each attempt runs in a child process. */
struct attempt {
    const char* name;
    long (*attempt)(void);
    int errors[4]; /* the expected error numbers; 0 ends the list */
};
void refused_each(const struct attempt* attempts, size_t count);

/* Runs `work` in a child process and returns its exit status, or 128 + signal. */
int in_child(int (*work)(void));

/* Returns a field of /proc/self/status without leading blanks; "" if it does not exist. */
const char* status_field(const char* name);

/* The groups of checks. */
void check_identity(void);     /* what the process has received */
void check_programs(void);     /* what it can gain by executing programs */
void check_root(void);         /* the root directory, and ways out of it */
void check_mounts(void);       /* what is mounted, and how */
void check_kernel_files(void); /* /proc and /sys */
void check_devices(void);
void check_processes(void);       /* the namespace's keeper, and processes of the host */
void check_ipc(void);             /* queues, System V objects, sockets, key rings */
void check_namespace_calls(void); /* called by check_calls() */
void check_mount_calls(void);
void check_filtered_calls(void);
void check_calls(void); /* system calls reserved for the host's root */

/* Ways to access a process (processes.c). Return the result of the call that succeeded, or -1. */
long probe_open(const char* path, int flags); /* also reads a byte */
long probe_seize(int pid);
long probe_read_memory(int pid);
long probe_take_descriptor(int pid, int fd);

/*
 * Creates message queues until creating one fails, and keeps them until the file /tmp/stop exists.
 */
void fill_queues(void);

/*
 * Attacks every process that enters the namespace until the file /tmp/stop exists. Prints how many
 * of them were attacked before they executed their program.
 */
void watch_joins(void);

#endif
