// msgq_owner.hpp - whose a queue is, and whether its maker is still there. Used by msgq.cpp, which
// opens, makes and fills queues. Left out: queues that nobody asks for by name (msgq_reclaim.cpp).
//
// A queue's maker has it locked (flock, shared) for as long as it has it open, so a queue that a
// dead process left can be told from one in use.
#ifndef ZN_LINUX_MSGQ_OWNER_HPP
#define ZN_LINUX_MSGQ_OWNER_HPP

namespace zn {

// Locks a new queue as its maker's. False with errno set, ENOENT when its name is gone already:
// another process took it for an abandoned one before it was locked.
bool queue_mark_in_use(int q) noexcept;

// Whether the queue is this user's and no other user can open it. False with errno EACCES.
bool queue_is_private(int q) noexcept;

// Whether nobody will read the queue `q` any more: its name is gone, or its maker has closed it or
// has ended. False also when that cannot be told. Does not change errno.
bool queue_is_abandoned(int q) noexcept;

// Removes the queue of this name if another user owns it. True: it is gone, or was none. False with
// errno EEXIST when it is this user's, EACCES without the right to remove it.
bool queue_remove_foreign(const char* name) noexcept;

} // namespace zn

#endif
