// zncHashBeside.hpp - computes the digest of a file in a second thread, while the first one reads
// the file and uses its bytes. Used for large layers: hashing in the thread that decompresses would
// make it slower than the one that creates the files.
#ifndef ZNCHASHBESIDE_HPP
#define ZNCHASHBESIDE_HPP

#include "base/not_copied.hpp"
#include "zncDigest.hpp"

#include <array>
#include <cstddef>

#include <pthread.h>

namespace znc {

class HashBeside : znc::NotCopied {
  public:
    static constexpr std::size_t kPieceLen = 64 * 1024;

    ~HashBeside() { finish(); }

    // Starts the thread, which adds bytes to `digest`. Until finish(), only that thread may use it.
    // False, without effect, if there is no second processor or if memory or a thread cannot be
    // allocated.
    [[nodiscard]] bool start(RunningDigest& digest) noexcept;
    [[nodiscard]] bool is_running() const noexcept { return memory_ != nullptr; }

    // Call these while it runs. piece() returns memory for the next kPieceLen bytes; add() hands
    // the first `len` of them to the thread. They may still be read until the next call of piece(),
    // but not changed.
    [[nodiscard]] unsigned char* piece() noexcept;
    void add(std::size_t len) noexcept;

    // Waits until all pieces are hashed and ends the thread. Preserves errno.
    void finish() noexcept;

  private:
    static constexpr std::size_t kPieces = 8;
    // The thread is woken when this many pieces wait: hashing takes less time than decompressing.
    static constexpr std::size_t kWorthwhile = kPieces / 2;

    static void* work(void* self);
    [[nodiscard]] unsigned char* bytes(std::size_t piece) const noexcept;
    std::size_t wait_for_pieces() noexcept;
    void count_hashed() noexcept;

    RunningDigest* digest_ = nullptr;
    MallocPtr<unsigned char[]> memory_; // of all pieces; null: no thread
    std::array<std::size_t, kPieces> lengths_ = {};
    std::size_t added_ = 0; // number of pieces since start()
    std::size_t hashed_ = 0;
    bool finish_ = false;
    pthread_t task_ = {};
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed_ = PTHREAD_COND_INITIALIZER;
};

} // namespace znc

#endif
