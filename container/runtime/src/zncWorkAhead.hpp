// zncWorkAhead.hpp - independent jobs on all processors, with the results of doing them one after
// the other: digests of a manifest's layers, layers of the store. On two processors an image of
// eight layers is unpacked in a little over half the time.
#ifndef ZNCWORKAHEAD_HPP
#define ZNCWORKAHEAD_HPP

#include "zncOwned.hpp"
#include "zncProgress.hpp"
#include "zncontainer.h"

#include <cstddef>
#include <pthread.h>

namespace znc {

class MutexHold {
  public:
    explicit MutexHold(pthread_mutex_t& mutex) noexcept : mutex_(mutex)
    {
        ::pthread_mutex_lock(&mutex_);
    }
    ~MutexHold() { ::pthread_mutex_unlock(&mutex_); }
    MutexHold(const MutexHold&) = delete;
    MutexHold& operator=(const MutexHold&) = delete;

  private:
    pthread_mutex_t& mutex_;
};

// Starts a helper task, which the application's signals are not for: it starts, and stays, with all
// of them blocked. Its stack is small. False: there is none.
bool start_task(pthread_t* task, void* (*main)(void*), void* argument) noexcept;

// A row of jobs. Whoever made it asks for the results in order and does himself what nobody has
// begun; helper tasks do what comes next meanwhile. A later job may thus have been done although an
// earlier one failed: only jobs that do no harm then belong here. Without memory or processors for
// helpers everything happens in result().
class WorkAhead {
  public:
    // `job` runs on several tasks at once, for different indices.
    using Job = STATUS (*)(void* context, std::size_t index);
    WorkAhead(Job job, void* context, std::size_t count) noexcept;
    ~WorkAhead(); // waits for the jobs that were begun; keeps the task error number
    WorkAhead(const WorkAhead&) = delete;
    WorkAhead& operator=(const WorkAhead&) = delete;

    // Leave a job alone; before start().
    void exclude(std::size_t index) noexcept;
    void start() noexcept;
    // The same with as many helpers as are asked for: the caller has something else to do.
    void start_helpers(std::size_t wanted) noexcept;

    static constexpr std::size_t kHelpersMax = 3;
    // How many processors there are besides those that `busy` tasks are on.
    static std::size_t processors_beside(std::size_t busy) noexcept;

    // The result of a job, with its task error number when it failed. While another task is at it,
    // `meanwhile` is called from time to time.
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
    bool is_going_on(std::size_t index) noexcept;

    Job job_;
    void* context_;
    UnpackCounts* counts_;
    std::size_t count_;
    std::size_t open_;        // from here on none is open
    MallocPtr<Slot[]> slots_; // null: nobody helps
    bool stop_ = false;
    pthread_t helpers_[kHelpersMax] = {};
    std::size_t helperCount_ = 0;
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t done_ = PTHREAD_COND_INITIALIZER;
};

} // namespace znc

#endif
