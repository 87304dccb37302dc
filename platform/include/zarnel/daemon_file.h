/*
 * daemon_file.h - what a daemon says of itself to other programs: a small file beside its lock,
 * and a lock that is held for as long as the daemon lives.
 *
 * The file may outlive the daemon. It is believed only while the lock is held, and only if the
 * process it names is still the one that wrote it.
 */
#ifndef ZARNEL_DAEMON_FILE_H
#define ZARNEL_DAEMON_FILE_H

#include <sys/types.h>

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZN_RUNTIME_DIR "/run/zarnel"
#define ZN_DAEMON_LOCK "zncd.lock"
#define ZN_DAEMON_FILE "zncd.info"

typedef struct znDaemonInfo {
    pid_t pid;
    char version[64];
} znDaemonInfo;

/*
 * Write the file for the calling process into the directory `dirFd`, whole or not at all. ERROR
 * with the task error number set; there is then no file.
 */
STATUS znDaemonInfoWrite(int dirFd, const char* version);

/*
 * Read it. ERROR with ESRCH when no daemon holds the lock or the file is not that daemon's,
 * EPERM when directory or file belong to another user, or the number of what kept it from
 * being read.
 */
STATUS znDaemonInfoRead(znDaemonInfo* info);

#ifdef __cplusplus
}
#endif
#endif
