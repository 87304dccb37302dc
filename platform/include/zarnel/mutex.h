/*
 * mutex.h - mutual-exclusion semaphores.
 *
 * A mutex is recursive for the task that owns it, raises its owner to the priority of its
 * highest-priority waiter, and protects the owner from deletion while it is owned.
 */
#ifndef ZARNEL_MUTEX_H
#define ZARNEL_MUTEX_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct znMutex* SEM_ID; /* NULL: no mutex */

#define ZN_SEM_Q_PRIORITY 0x1     /* waiting tasks in priority order */
#define ZN_SEM_DELETE_SAFE 0x4    /* the owner cannot be deleted */
#define ZN_SEM_INVERSION_SAFE 0x8 /* priority inheritance */

/*
 * Create an unowned mutex. Returns NULL with errno set (ENOMEM, EINVAL) on failure.
 */
SEM_ID znMutexCreate(int options);

/*
 * Take the mutex, waiting up to `timeout` ticks (or ZN_NO_WAIT, ZN_WAIT_FOREVER, see msgq.h). OK,
 * or ERROR with EBUSY (ZN_NO_WAIT), ETIMEDOUT, or EINVAL for a NULL mutex.
 */
STATUS znMutexTake(SEM_ID mutex, int timeout);

/* Release the mutex once. ERROR with EPERM if the caller does not own it, EINVAL for NULL. */
STATUS znMutexGive(SEM_ID mutex);

/*
 * Delete a mutex that is unowned or owned by the caller. A mutex that the caller owns is released
 * first, however often it was taken. ERROR with EBUSY if another task owns it, EINVAL for NULL.
 */
STATUS znMutexDelete(SEM_ID mutex);

#ifdef __cplusplus
}
#endif
#endif
