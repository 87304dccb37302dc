/*
 * msgq.h - named message queues.
 *
 * A queue holds up to maxMsgs messages of up to maxMsgLen bytes and exists until its name is
 * removed and its last handle is closed. A name begins with "/" and contains no other "/". Any task
 * of any process may use a queue, and several tasks may use one handle at the same time. A queue
 * can be opened only by the user that created it: opening fails if another user owns the queue or
 * its mode admits other users. A queue that another user owns does not prevent the creation of a
 * new one with its name, provided that the caller may remove it.
 *
 * Timeouts are in system clock ticks, on a monotonic clock. An interrupted wait continues for the
 * rest of its timeout.
 *
 * Not provided on Linux: waking receivers in order of task priority (the option word is accepted
 * but has no effect), and the identity of the sender.
 */
#ifndef ZARNEL_MSGQ_H
#define ZARNEL_MSGQ_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int MSG_Q_ID; /* negative: invalid */

#define ZN_MSG_Q_INVALID (-1)
#define ZN_MSG_Q_LONGEST 32 /* messages of the longest queue that a system must allow */

#define ZN_MSG_Q_FIFO 0x0     /* option: tasks wait in FIFO order */
#define ZN_MSG_Q_PRIORITY 0x1 /* option: tasks wait in priority order */

#define ZN_MSG_Q_OPEN_EXISTING 0x0           /* mode: ENOENT if the queue does not exist */
#define ZN_MSG_Q_CREATE_EXCLUSIVE 0x30000000 /* mode: EEXIST if the queue exists */

#define ZN_WAIT_FOREVER (-1)
#define ZN_NO_WAIT 0

#define ZN_MSG_PRI_NORMAL 0

/*
 * Open the queue `name`. With ZN_MSG_Q_CREATE_EXCLUSIVE the queue is created with the given
 * capacity; with ZN_MSG_Q_OPEN_EXISTING the capacity arguments are ignored.
 *
 * While queue memory or the number of queues is exhausted, creation waits up to 5 seconds for its
 * turn, then fails with EMFILE or ENOSPC. Waiting tasks are served in order of arrival, but a task
 * that has already created a queue precedes tasks that have none. If the capacity exceeds the limit
 * of the system, creation raises that limit if the caller may do so, else it fails with EINVAL
 * (znMsgQLimitHint names the setting).
 *
 * Returns a handle that the caller must close, or ZN_MSG_Q_INVALID with errno set: ENOENT (no such
 * queue), EEXIST (the queue exists and belongs to this user, or to another one and the caller may
 * not remove it), EACCES (the queue belongs to, or is accessible to, other users). The handle is
 * closed on exec.
 */
MSG_Q_ID znMsgQOpen(const char* name, size_t maxMsgs, size_t maxMsgLen, int options, int mode);

/*
 * Open the queue `name` that another process of this user has created and that is abandoned: its
 * creator closed it or ended. From then on the caller counts as its creator, and the messages in it
 * can be received. ZN_MSG_Q_INVALID with errno set: ENOENT (no such queue, or one with another
 * capacity or another owner), EBUSY (in use), ENOTSUP.
 */
MSG_Q_ID znMsgQTakeOver(const char* name, size_t maxMsgs, size_t maxMsgLen);

/*
 * Send a message of `len` bytes, waiting up to `timeout` ticks for room. OK, or ERROR with EAGAIN
 * (full, ZN_NO_WAIT), ETIMEDOUT, EMSGSIZE (longer than the queue's message size) or EBADF. With
 * ZN_WAIT_FOREVER, EPIPE is returned within a second if the queue is full and abandoned: its name
 * was removed, or its creator closed it or ended.
 */
STATUS znMsgQSend(MSG_Q_ID q, const void* msg, size_t len, int timeout, int priority);

/*
 * Receive one message into `buf`; what exceeds `maxLen` bytes is discarded. Returns the number of
 * bytes copied (0 for an empty message), or -1 with EAGAIN (empty, ZN_NO_WAIT), ETIMEDOUT, EBADF,
 * ENOMEM, or ECANCELED (znTaskStopFdSet).
 */
ssize_t znMsgQReceive(MSG_Q_ID q, void* buf, size_t maxLen, int timeout);

/* Whether no message waits in the queue. FALSE also if that cannot be determined. Preserves errno.
 */
BOOL znMsgQEmpty(MSG_Q_ID q);

/* Close a handle. The queue exists until its name is removed, too. */
STATUS znMsgQClose(MSG_Q_ID q);

/* Remove a queue's name. Open handles stay valid; the queue can no longer be opened. */
STATUS znMsgQUnlink(const char* name);

/*
 * Remove the queue `name` if another user owns it, or if it is abandoned: its creator closed it or
 * ended. OK also if there is no such queue. ERROR with EBUSY (in use) or EACCES (another user's,
 * and the caller may not remove it). The name must be one that only the caller gives to queues: a
 * queue created under it while this call runs cannot be distinguished from the old one.
 */
STATUS znMsgQDiscard(const char* name);

/*
 * Whether a queue `name` exists that only this user can open and that its creator has open. A
 * process that checks for the creator at the same time is not mistaken for it. FALSE also if this
 * cannot be determined. Preserves errno.
 */
BOOL znMsgQInUse(const char* name);

/*
 * Remove queues left by processes that ended. `makerOf` returns the id of the process that created
 * the queue `name`, or 0 for a queue that must not be touched. A queue is removed if that process
 * has ended, neither its creator nor a process forked from it still has the queue open, and the
 * queue belongs to this user. Returns the number of queues removed, or -1 with errno set (EPERM
 * without the right to list queues). If the process id was reused, the queue stays until the new
 * process has ended, too.
 */
int znMsgQReclaim(long (*makerOf)(const char* name));

/*
 * Raise this process's limits on queue memory as far as permitted, and the system's limit on the
 * number of messages in a queue to at least `maxMsgs`. OK, or ERROR with errno set if a queue of
 * `maxMsgs` messages of `maxMsgLen` bytes cannot be created; may wait as znMsgQOpen does.
 */
STATUS znMsgQLimitsRaise(size_t maxMsgs, size_t maxMsgLen);

/*
 * One line of English text: which limit prevents creating a queue with `errorNumber`, and which
 * setting to change. The text is constant.
 */
const char* znMsgQLimitHint(int errorNumber);

#ifdef __cplusplus
}
#endif
#endif
