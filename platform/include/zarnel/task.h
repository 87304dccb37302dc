/*
 * task.h - the calling task: the system clock, deletion safety, the stop request.
 *
 * The task error number is the C library's thread-local `errno`.
 */
#ifndef ZARNEL_TASK_H
#define ZARNEL_TASK_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Ticks per second of the system clock; every timeout of the platform is counted in them. */
int znSysClkRateGet(void);

/*
 * Make the calling task safe from deletion, and end that again. The calls nest:
 * the task can be deleted only after as many znTaskUnsafe as znTaskSafe calls.
 * On Linux deletion is thread cancellation. Neither call fails or blocks;
 * an unmatched znTaskUnsafe does nothing.
 */
void znTaskSafe(void);
void znTaskUnsafe(void);

/*
 * Let the calling task's work wait for everybody else's: the lowest priority for the processor
 * and, where the system has such, for the disk. For good; a failure changes nothing.
 */
void znTaskBackgroundSet(void);

/*
 * Name the descriptor that asks the calling task to stop (-1: none, the default).
 * Once it is readable, a queue receive of this task that may wait fails with
 * ECANCELED instead of taking a message; one with ZN_NO_WAIT is unaffected.
 * The descriptor stays the caller's, is never read and must outlive its use here.
 */
void znTaskStopFdSet(int fd);
int znTaskStopFdGet(void);

#ifdef __cplusplus
}
#endif
#endif
