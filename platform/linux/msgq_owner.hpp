// msgq_owner.hpp - who owns a queue, and whether its creator still has it open. Used by msgq.cpp.
// Queues left by processes that ended are removed in msgq_reclaim.cpp.
//
// The creator of a queue holds a shared flock on it as long as it has the queue open, so that a
// queue left by a process that ended can be distinguished from one in use.
#ifndef ZN_LINUX_MSGQ_OWNER_HPP
#define ZN_LINUX_MSGQ_OWNER_HPP

namespace zn {

// Locks a new queue on behalf of its creator. False with errno set; ENOENT if its name was removed
// before it was locked, by another process that considered it abandoned.
bool queue_mark_in_use(int q) noexcept;

// Whether this user owns the queue and no other user can open it. False with errno EACCES.
bool queue_is_private(int q) noexcept;

// Whether the queue `q` will not be read any more: its name was removed, or its creator closed it
// or ended. False also if that cannot be determined. Preserves errno.
bool queue_is_abandoned(int q) noexcept;

// Removes the queue of this name if another user owns it. True if the name does not exist
// afterwards. False with errno EEXIST if this user owns it, EACCES without the right to remove it.
bool queue_remove_foreign(const char* name) noexcept;

} // namespace zn

#endif
