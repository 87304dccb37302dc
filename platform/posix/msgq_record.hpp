// msgq_record.hpp - the record of a queue: who owns it and whether its creator still has it open.
//
// POSIX does not tell who owns a message queue. So each queue has a record, a shared memory object
// with the queue's public name, of which POSIX tells owner and mode. The record names the queue
// itself, whose name is chosen at its creation: another user can neither change the record nor have
// created that queue. A process that trusts the record may therefore trust the queue.
#ifndef ZN_POSIX_MSGQ_RECORD_HPP
#define ZN_POSIX_MSGQ_RECORD_HPP

#include <atomic>
#include <climits>
#include <cstdint>
#include <utility>

namespace zn {

class QueueRecord {
  public:
    constexpr QueueRecord() noexcept = default;
    QueueRecord(QueueRecord&& other) noexcept : shared_(std::exchange(other.shared_, nullptr)) {}
    QueueRecord& operator=(QueueRecord&& other) noexcept
    {
        std::swap(shared_, other.shared_);
        return *this;
    }
    ~QueueRecord();

    // A new record of the calling process. A record of another user is replaced, if permitted.
    // Empty with errno EEXIST and others.
    static QueueRecord create(const char* name) noexcept;
    // Empty with errno ENOENT, or EACCES if another user owns the record or can open it.
    static QueueRecord find(const char* name) noexcept;

    explicit operator bool() const noexcept { return shared_ != nullptr; }

    // The queue's own name; "" until publish().
    [[nodiscard]] const char* queue() const noexcept
    {
        return shared_->published != 0 ? shared_->queue : "";
    }
    void publish(const char* queue) const noexcept;

    // Whether the queue will not be read any more: its name was removed, or its creator closed it
    // or ended. Preserves errno.
    [[nodiscard]] bool is_abandoned() const noexcept;
    // Called when a process closes the queue; only that by the creator counts.
    void note_closed() const noexcept;
    void note_removed() const noexcept;

  private:
    struct Shared {
        std::atomic<std::int32_t> creator; // process id
        std::atomic<std::int32_t> closed;
        std::atomic<std::int32_t> published;
        char queue[NAME_MAX + 2];
    };

    static QueueRecord map(int object) noexcept;

    Shared* shared_ = nullptr;
};

// Removes the record `name` if another user owns it. True if there is no record afterwards. False
// with errno EEXIST if this user owns it, EACCES without the right to remove it.
bool queue_record_remove_foreign(const char* name) noexcept;

} // namespace zn

#endif
