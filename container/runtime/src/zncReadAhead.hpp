// zncReadAhead.hpp - reads an archive on another processor, ahead of whoever makes files of it: it
// is hashed and inflated there. Used for the layers of images.
#ifndef ZNCREADAHEAD_HPP
#define ZNCREADAHEAD_HPP

#include "zncOwned.hpp"
#include "zncontainer.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include <pthread.h>

namespace znc {

class ReadAhead {
  public:
    // The next bytes of `source`, as a TAR_COMPRESS gives them.
    using Read = ssize_t (*)(void* source, void* buffer, std::size_t count);

    ReadAhead() = default;
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;
    ~ReadAhead() { stop(); }

    // `source` is the task's from now on, until stop(). False: there is no processor, memory or
    // task for it, and nothing has happened.
    [[nodiscard]] bool start(Read read, void* source) noexcept;
    // The same bytes, with the same end or error; once it was started.
    [[nodiscard]] TAR_COMPRESS* source() noexcept { return &stream_.tc; }
    // Ends the task, which may have read on by then. Keeps the task error number.
    void stop() noexcept;

  private:
    static constexpr std::size_t kSlots = 4;
    struct Slot {
        ssize_t len = 0;
        int error = 0;
    };
    struct Stream {
        TAR_COMPRESS tc; // first: what its read is called with
        ReadAhead* self;
    };

    static ssize_t read_stream(void* stream, void* buffer, std::size_t count);
    static void* work(void* self);
    [[nodiscard]] char* bytes(std::size_t slot) const noexcept;
    bool wait_for_room() noexcept;
    void wait_for_bytes() noexcept;
    void count(std::size_t& slots) noexcept;
    ssize_t take(char* buffer, std::size_t count) noexcept;

    Stream stream_ = {{read_stream}, this};
    Read read_ = nullptr;
    void* from_ = nullptr;
    MallocPtr<char[]> memory_; // of all slots; null: no task
    std::array<Slot, kSlots> slots_ = {};
    std::size_t filled_ = 0; // slots, since the start
    std::size_t emptied_ = 0;
    std::size_t taken_ = 0; // bytes of the slot that is being emptied
    bool stop_ = false;
    std::atomic<std::uint64_t> position_ = 0; // in the file, for who listens
    pthread_t task_ = {};
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed_ = PTHREAD_COND_INITIALIZER;
};

} // namespace znc

#endif
