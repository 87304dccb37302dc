/*
 * process.h - waiting for child processes by pidfd.
 *
 * waitpid() also reports stops of children that have called ptrace(PTRACE_TRACEME), which a
 * container's program may do, and the ends of orphans that were reparented to a subreaper. Neither
 * must be mistaken for the end of the program: these functions report neither.
 */
#ifndef ZARNEL_PROCESS_H
#define ZARNEL_PROCESS_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A close-on-exec descriptor that refers to the process `pid`, even if its id is reused later. The
 * process must be a child of the caller that has not been reaped, so that `pid` cannot have been
 * reused yet. -1 with ESRCH (no such process) or EMFILE, ENFILE, ENOMEM.
 */
int znProcessOpen(pid_t pid);

/*
 * Reap the child that a descriptor refers to, without waiting. OK with its status in waitpid's
 * format in `status`; ERROR with EAGAIN if it has not ended (also if it is stopped), ECHILD if it
 * is not a child of the caller or was reaped already.
 */
STATUS znProcessReap(int process, int* status);

/*
 * Reap the children that have ended, except the process `except` (0: none). Stop reports of traced
 * children are discarded. TRUE if there may be more: the number reaped per call is limited, so that
 * a program that creates children endlessly cannot keep the caller here. Returns FALSE also when it
 * finds that `except` has ended: reap that one first, then call again.
 */
BOOL znProcessReapOthers(pid_t except);

#ifdef __cplusplus
}
#endif
#endif
