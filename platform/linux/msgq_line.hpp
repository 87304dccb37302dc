// msgq_line.hpp - the line of tasks that wait to create a queue while queue memory or the number of
// queues is exhausted; first come, first served. Used by msgq.cpp.
//
// The line is a System V semaphore set of this user in the IPC namespace of the queues: the kernel
// keeps the order and removes tasks that die. The set exists only while a task waits. If it cannot
// be created, callers do not wait in line and are served in no particular order.
//
// Why retrying at random intervals is not enough: a call needs two queues, and the kernel does not
// report when queue memory becomes free. If many clients call at once, clients that have one queue
// can hold all the memory, each waiting for its second queue until it gives up. With the line,
// tasks that have a queue are served first, so that their calls finish and release their queues.
#ifndef ZN_LINUX_MSGQ_LINE_HPP
#define ZN_LINUX_MSGQ_LINE_HPP

#include "base/not_copied.hpp"

#include <cstdint>

namespace zn {

// Whether other tasks wait in line. Preserves errno.
bool queue_line_is_taken() noexcept;

// The calling task's place in the line; the task cannot be deleted while it exists. A task that has
// a queue precedes all tasks that have none, so that tasks waiting for their second queue cannot
// hold all the memory.
class QueueLinePlace : znc::NotCopied {
  public:
    explicit QueueLinePlace(bool hasQueue) noexcept;
    ~QueueLinePlace();

    // Waits until this task may attempt to create its queue, at most until `deadline`. May be
    // called again after a failed attempt.
    void wait_turn(std::int64_t deadline) noexcept;

  private:
    bool join(std::int64_t deadline) noexcept;

    bool hasQueue_;
    int line_ = -1; // the semaphore set that counts this place
};

} // namespace zn

#endif
