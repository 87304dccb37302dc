/*
 * process.h - the caller's children by descriptor: their ends, and nothing but their ends.
 *
 * A container's program can make its caller the tracer of its processes (stops are then reported
 * as if they were ends) and can make processes of its own children of the caller. Neither may be
 * taken for the program's end.
 */
#ifndef ZARNEL_PROCESS_H
#define ZARNEL_PROCESS_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A descriptor that stands for the process `pid` for ever, closed on exec. The process must be a
 * child of the caller that nobody has reaped: until then the id is no other's. -1 with ESRCH (no
 * such process) or EMFILE, ENFILE, ENOMEM.
 */
int znProcessOpen(pid_t pid);

/*
 * Reap the child behind a descriptor without waiting. OK with its status in waitpid's form in
 * `status`; ERROR with EAGAIN while it has not ended (a stop is no end), ECHILD if it is no child
 * of the caller or was reaped.
 */
STATUS znProcessReap(int process, int* status);

/*
 * Reap all other children that have ended; `except` (0: nobody) is left alone. Stops of traced
 * children are dropped. TRUE if there may be more: a limited number is reaped at a time, so that
 * who makes children without end cannot keep the caller here. FALSE also when `except` has ended:
 * reap it first, then call again.
 */
BOOL znProcessReapOthers(pid_t except);

#ifdef __cplusplus
}
#endif
#endif
