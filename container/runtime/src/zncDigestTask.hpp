// zncDigestTask.hpp - computes a digest on another processor while whoever reads the bytes uses
// them. Used for archives that are worth it.
#ifndef ZNCDIGESTTASK_HPP
#define ZNCDIGESTTASK_HPP

#include "zncDigest.hpp"

#include <cstddef>

#include <pthread.h>

namespace znc {

class DigestTask {
  public:
    DigestTask() = default;
    DigestTask(const DigestTask&) = delete;
    DigestTask& operator=(const DigestTask&) = delete;
    ~DigestTask() { finish(); }

    // `digest` is the task's from now on, until finish(). False: there is no processor, memory or
    // task for it, and nothing has happened.
    [[nodiscard]] bool start(RunningDigest& digest) noexcept;
    [[nodiscard]] bool runs() const noexcept { return ring_ != nullptr; }

    // Copies the next bytes; waits while the task is too far behind.
    void give(const void* data, std::size_t len) noexcept;
    // Waits until all of them are in the digest, and ends the task.
    void finish() noexcept;

  private:
    static void* work(void* self);
    bool next(std::size_t* at, std::size_t* len) noexcept;

    RunningDigest* digest_ = nullptr;
    MallocPtr<char[]> ring_;
    std::size_t given_ = 0;  // bytes, since the start
    std::size_t hashed_ = 0; // of them
    bool end_ = false;
    pthread_t task_ = {};
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed_ = PTHREAD_COND_INITIALIZER;
};

} // namespace znc

#endif
