// zncReadAhead.hpp - reads and decompresses an archive in a second thread, while the first
// one creates the files. Used for the layers of images.
#ifndef ZNCREADAHEAD_HPP
#define ZNCREADAHEAD_HPP

#include "base/not_copied.hpp"
#include "zncOwned.hpp"
#include "zncontainer.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include <pthread.h>

namespace znc {

class ReadAhead : znc::NotCopied {
  public:
    // Reads the next bytes of `source`, with the result of TAR_COMPRESS::read.
    using Read = ssize_t (*)(void* source, void* buffer, std::size_t count);

    ~ReadAhead() { stop(); }

    // Starts the helper thread. Until stop(), only that thread may use `source`. False, without
    // effect, if there is no second processor or if memory or a thread cannot be allocated.
    [[nodiscard]] bool start(Read read, void* source) noexcept;
    // Call after start(): a stream with the same bytes, end and error.
    [[nodiscard]] TAR_COMPRESS* source() noexcept { return &stream_.tc; }
    // Ends the thread, which may have read further than the caller. Preserves errno.
    void stop() noexcept;

  private:
    static constexpr std::size_t kSlots = 4;
    struct Slot {
        ssize_t len = 0;
        int error = 0;
    };
    struct Stream {
        TAR_COMPRESS tc; // first member: read() is called with a pointer to it
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
    MallocPtr<char[]> memory_; // memory of all slots; null: no helper thread
    std::array<Slot, kSlots> slots_ = {};
    std::size_t filled_ = 0; // number of slots filled since start()
    std::size_t emptied_ = 0;
    std::size_t taken_ = 0; // bytes already taken from the current slot
    bool stop_ = false;
    std::atomic<std::uint64_t> position_ = 0; // offset in the file, for progress reports
    pthread_t task_ = {};
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed_ = PTHREAD_COND_INITIALIZER;
};

} // namespace znc

#endif
