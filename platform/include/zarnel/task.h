/*
 * task.h - operations on the calling task: clock rate, deletion safety, background priority, stop
 * request.
 *
 * `errno` is that of the C library: each task has its own.
 */
#ifndef ZARNEL_TASK_H
#define ZARNEL_TASK_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Ticks per second of the system clock, the unit of every timeout of the platform. */
int znSysClkRateGet(void);

/*
 * Protect the calling task from deletion, and end the protection. The calls nest: the task can be
 * deleted only after as many znTaskUnsafe as znTaskSafe calls. On Linux deletion is thread
 * cancellation. Neither call fails or blocks; an unmatched znTaskUnsafe does nothing.
 */
void znTaskSafe(void);
void znTaskUnsafe(void);

/*
 * Give the calling task the lowest CPU priority and, if the system has I/O priorities, the lowest
 * of these. It cannot be undone. Failures are ignored.
 */
void znTaskBackgroundSet(void);

/* Number of processors on which the calling task may run; 1 if unknown. Preserves errno. */
size_t znTaskProcessors(void);

/*
 * Set the descriptor that asks the calling task to stop (-1: none, the default). When it is
 * readable, a message receive of this task that may wait fails with ECANCELED instead of taking a
 * message; one with ZN_NO_WAIT is not affected. The descriptor remains the caller's, is never read,
 * and must stay open while it is set.
 */
void znTaskStopFdSet(int fd);
int znTaskStopFdGet(void);

#ifdef __cplusplus
}
#endif
#endif
