// msgq_owner.hpp - the owner of a message queue, and whether the process that created it still has
// it open. Used by msgq.cpp, which opens, creates and fills queues. Abandoned queues whose names
// are not used again are removed by msgq_reclaim.cpp.
//
// The creator of a queue holds a shared flock() on it as long as the queue is open. This
// distinguishes a queue in use from one left by a process that died.
#ifndef ZN_LINUX_MSGQ_OWNER_HPP
#define ZN_LINUX_MSGQ_OWNER_HPP

namespace zn {

// Takes the creator's lock on a new queue. False with errno set; ENOENT if the name has been
// removed, because another process took the queue for an abandoned one before it was locked.
bool queue_mark_in_use(int q) noexcept;

// Whether the queue belongs to this user and no other user can open it. If not: errno is EACCES.
bool queue_is_private(int q) noexcept;

// Whether no process will read the queue `q` any more: its name has been removed, or its creator
// has closed it or has ended. False if that cannot be determined. Does not change errno.
bool queue_is_abandoned(int q) noexcept;

// Removes the queue of this name if another user owns it. True if there is no such queue
// afterwards. False with errno set: EEXIST if the queue is this user's, EACCES without permission
// to remove it.
bool queue_remove_foreign(const char* name) noexcept;

} // namespace zn

#endif
