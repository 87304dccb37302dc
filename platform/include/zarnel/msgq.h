/*
 * msgq.h - named message queues.
 *
 * A queue keeps up to maxMsgs messages of up to maxMsgLen bytes and lives until
 * its name is removed and its last handle closed. Names begin with "/" and hold
 * no other "/". Any task of any process may use a queue; calls on one handle may
 * run at the same time. Only the user that created a queue can open it: a queue that
 * another user owns, or could open, is opened by nobody, and one that another user owns
 * does not stand in the way of a new one of its name.
 *
 * Timeouts are in system clock ticks on a clock that never jumps. An interrupted
 * wait is taken up again with what is left of its time.
 *
 * Not promised on Linux: that waiting receivers are served by task priority (the
 * option word is accepted and has no effect), and any identity of the sender.
 */
#ifndef ZARNEL_MSGQ_H
#define ZARNEL_MSGQ_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int MSG_Q_ID; /* negative: no queue */

#define ZN_MSG_Q_INVALID (-1)

#define ZN_MSG_Q_FIFO 0x0     /* option word: waiting tasks first come, first served */
#define ZN_MSG_Q_PRIORITY 0x1 /* option word: waiting tasks in priority order */

#define ZN_MSG_Q_OPEN_EXISTING 0x0           /* mode: fails with ENOENT if there is none */
#define ZN_MSG_Q_CREATE_EXCLUSIVE 0x30000000 /* mode: fails with EEXIST if there is one */

#define ZN_WAIT_FOREVER (-1)
#define ZN_NO_WAIT 0

#define ZN_MSG_PRI_NORMAL 0

/*
 * Open the queue `name`. With ZN_MSG_Q_CREATE_EXCLUSIVE the queue is made with the
 * capacity given; with ZN_MSG_Q_OPEN_EXISTING the capacity arguments are ignored.
 *
 * Creating waits up to `5 x tick rate` for its turn while the system's queue memory or
 * queue count is used up, then fails with EMFILE or ENOSPC. First come, first served;
 * but a task that has made a queue goes before tasks that have none. A capacity above the
 * system's limit raises that limit where the caller may, and fails with EINVAL where
 * it may not (znMsgQLimitHint names the setting).
 *
 * Returns a handle that the caller closes, or ZN_MSG_Q_INVALID with the task error
 * number set: ENOENT (there is none), EEXIST (there is one of this user's, or another's that
 * the caller may not remove), EACCES (what is there is not this user's alone). The handle
 * does not survive an exec.
 */
MSG_Q_ID znMsgQOpen(const char* name, size_t maxMsgs, size_t maxMsgLen, int options, int mode);

/*
 * Send `len` bytes. Waits up to `timeout` ticks for room. OK, or ERROR with EAGAIN (full,
 * ZN_NO_WAIT), ETIMEDOUT, EMSGSIZE (longer than the queue's messages) or EBADF. With
 * ZN_WAIT_FOREVER also EPIPE, within a second: the queue is full and has nobody who made it
 * any more, because its name is gone or its maker has closed it or has ended.
 */
STATUS znMsgQSend(MSG_Q_ID q, const void* msg, size_t len, int timeout, int priority);

/*
 * Receive one message into `buf`; what does not fit in `maxLen` bytes is lost. Returns the
 * number of bytes copied (0 for an empty message), or -1 with EAGAIN (empty, ZN_NO_WAIT),
 * ETIMEDOUT, EBADF, ENOMEM, or ECANCELED (znTaskStopFdSet).
 */
ssize_t znMsgQReceive(MSG_Q_ID q, void* buf, size_t maxLen, int timeout);

/* Close a handle. The queue itself stays until its name is removed. */
STATUS znMsgQClose(MSG_Q_ID q);

/* Remove a queue's name. Open handles go on working; nobody new finds the queue. */
STATUS znMsgQUnlink(const char* name);

/*
 * Remove the queue `name` if it is of no use to anybody: another user owns it, or its maker
 * has closed it or has ended. OK also when there is none. ERROR with EBUSY (it is in use) or
 * EACCES (another user's, without the right to remove it). For a name that only the caller
 * gives to queues: a queue that takes the name meanwhile is not told from the old one.
 */
STATUS znMsgQDiscard(const char* name);

/*
 * Whether there is a queue `name` of this user's alone whose maker has it open. A process that looks
 * for the maker at the same time is not taken for it. FALSE also when that cannot be told. Does not
 * change the task error number.
 */
BOOL znMsgQInUse(const char* name);

/*
 * Remove queues that dead processes left. `makerOf` names the process that made a queue
 * of this name, or 0 for one that is not to be touched. A queue goes when that process
 * has ended, nobody who made it (or was forked by who did) has it open, and it is this
 * user's. Returns how many went, or -1 with the task error number set (EPERM without the
 * right to see the queues). Where a live process has got the number of the dead one, the
 * queue stays until that one has ended, too.
 */
int znMsgQReclaim(long (*makerOf)(const char* name));

/*
 * Raise this process's limits on queue memory as far as it may, and the system's limit on
 * the messages of one queue to at least `maxMsgs`. OK, or ERROR with the task error number
 * set when a queue of `maxMsgs` messages of `maxMsgLen` bytes cannot be made; it waits as
 * creating one does.
 */
STATUS znMsgQLimitsRaise(size_t maxMsgs, size_t maxMsgLen);

/*
 * What is short, and which setting to change, when a queue cannot be made for `errorNumber`:
 * a line for a person. Constant text.
 */
const char* znMsgQLimitHint(int errorNumber);

#ifdef __cplusplus
}
#endif
#endif
