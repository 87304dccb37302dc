/*
 * daemon_file.h - the daemon's identity for other programs: a small file in the runtime directory,
 * next to a lock file that the daemon holds locked as long as it runs.
 *
 * The file may outlive the daemon. Readers trust it only while the lock is held and the process
 * that it names is still the one that wrote it.
 */
#ifndef ZARNEL_DAEMON_FILE_H
#define ZARNEL_DAEMON_FILE_H

#include <sys/types.h>

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifndef ZN_RUNTIME_DIR /* an option of the build */
#define ZN_RUNTIME_DIR "/run/zarnel"
#endif
#define ZN_DAEMON_LOCK "zncd.lock"
#define ZN_DAEMON_FILE "zncd.info"

typedef struct znDaemonInfo {
    pid_t pid;
    char version[64];
} znDaemonInfo;

/*
 * Write the file, naming the calling process, into the directory `dirFd`, atomically. On ERROR
 * errno is set and no file is left.
 */
STATUS znDaemonInfoWrite(int dirFd, const char* version);

/*
 * Read the file. ERROR with ESRCH if no daemon holds the lock or the file was not written by a
 * process that still runs, EPERM if the directory or a file in it belongs to another user, or the
 * error that prevented reading.
 */
STATUS znDaemonInfoRead(znDaemonInfo* info);

#ifdef __cplusplus
}
#endif
#endif
