// zncWorkAhead.hpp - runs independent jobs on all processors, with the same results as a sequential
// run. Used to compute the digests of a manifest's layers and to extract layers into the store.
#ifndef ZNCWORKAHEAD_HPP
#define ZNCWORKAHEAD_HPP

#include "base/mutex_hold.hpp"
#include "base/not_copied.hpp"
#include "zncOwned.hpp"
#include "zncProgress.hpp"
#include "zncontainer.h"

#include <cstddef>
#include <pthread.h>

namespace znc {

// Starts a helper thread with all signals blocked and a small stack. False on failure.
bool start_task(pthread_t* task, void* (*main)(void*), void* argument) noexcept;

// A sequence of jobs. The caller asks for the results in order and executes jobs that no helper
// thread has started; helpers take the next ones. A later job may therefore run although an earlier
// one failed, so jobs must be harmless in that case. Without memory or processors for helpers, all
// jobs run in result().
class WorkAhead : znc::NotCopied {
  public:
    // `job` may run on several threads at once, for different indices.
    using Job = STATUS (*)(void* context, std::size_t index);
    WorkAhead(Job job, void* context, std::size_t count) noexcept;
    ~WorkAhead(); // waits for the running jobs; preserves errno

    // Excludes a job from the helpers; call before start().
    void exclude(std::size_t index) noexcept;
    void start() noexcept;
    // Like start(), with the given number of helpers, for a caller that does other work.
    void start_helpers(std::size_t wanted) noexcept;

    static constexpr std::size_t kHelpersMax = 3;
    // The number of processors besides those used by `busy` threads.
    static std::size_t processors_beside(std::size_t busy) noexcept;

    // The result of a job; if it failed, errno is set to the job's. While a helper is still
    // executing it, `meanwhile` (may be null) is called about every 50 ms.
    using Meanwhile = void (*)(void* context, std::size_t index);
    STATUS result(std::size_t index, Meanwhile meanwhile = nullptr) noexcept;

  private:
    enum class State : unsigned char { kOpen, kExcluded, kBegun, kDone };
    struct Slot {
        State state;
        STATUS status;
        int error;
    };
    bool have_slots() noexcept;
    static void* help(void* self);
    void finish(Slot& slot, STATUS status) noexcept;
    bool begin(std::size_t* index) noexcept;
    bool is_still_running(std::size_t index) noexcept;

    Job job_;
    void* context_;
    UnpackCounts* counts_;
    std::size_t count_;
    std::size_t open_;        // index after the last open job
    MallocPtr<Slot[]> slots_; // null: no helpers
    bool stop_ = false;
    pthread_t helpers_[kHelpersMax] = {};
    std::size_t helperCount_ = 0;
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t done_ = PTHREAD_COND_INITIALIZER;
};

} // namespace znc

#endif
