// msgq_line.hpp - the line of tasks that wait until queue memory, or the number of queues, lets
// them make one: first come, first served. Used by msgq.cpp.
//
// The line is a System V semaphore set of this user in the queues' own IPC namespace: the kernel
// keeps the order and takes a task that dies out of it. The set is there only while somebody waits.
// Where it cannot be had, nobody waits in a line, and order is left to chance.
//
// Why a line and not tries at random: a call needs two queues, and the kernel says only that memory
// is used up, not when it becomes free. When hundreds of clients call at once, some that hold one
// queue hold all memory between them and each waits for its second one until it gives up. With the
// line, whoever has a queue already is served first, so that calls end and free what they hold.
#ifndef ZN_LINUX_MSGQ_LINE_HPP
#define ZN_LINUX_MSGQ_LINE_HPP

#include <cstdint>

namespace zn {

// Whether others wait. Does not change errno.
bool queue_line_is_taken() noexcept;

// The calling task's place in the line, which keeps it from being deleted there. A task that has a
// queue already goes before all that have none: were it not so, queues whose owners wait for a
// second one could come to hold all memory.
class QueueLinePlace {
  public:
    explicit QueueLinePlace(bool hasQueue) noexcept;
    ~QueueLinePlace();
    QueueLinePlace(const QueueLinePlace&) = delete;
    QueueLinePlace& operator=(const QueueLinePlace&) = delete;

    // Waits until it is this task's turn to try, the first time and again, but not beyond
    // `deadline`.
    void wait_turn(std::int64_t deadline) noexcept;

  private:
    bool join(std::int64_t deadline) noexcept;

    bool hasQueue_;
    int line_ = -1; // the set this place is counted in
};

} // namespace zn

#endif
