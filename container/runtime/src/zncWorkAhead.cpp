// zncWorkAhead.cpp - see zncWorkAhead.hpp.
#include "zncWorkAhead.hpp"

#include "zarnel/task.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace {

constexpr std::size_t kStackSize = 256 * 1024; // of a helper thread; the jobs need a few KiB
constexpr long kSecond = 1'000'000'000;
constexpr long kWaitNs = kSecond / 20;

} // namespace

namespace znc {

bool start_task(pthread_t* task, void* (*main)(void*), void* argument) noexcept
{
    pthread_attr_t attributes;
    if (::pthread_attr_init(&attributes) != 0)
        return false;
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    const bool started = ::pthread_attr_setstacksize(&attributes, kStackSize) == 0 &&
                         ::pthread_create(task, &attributes, main, argument) == 0;
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::pthread_attr_destroy(&attributes);
    return started;
}

WorkAhead::WorkAhead(Job job, void* context, std::size_t count) noexcept
    : job_(job), context_(context), counts_(progress_counts()), count_(count), open_(count)
{
}

WorkAhead::~WorkAhead()
{
    const ErrnoSaver keep;
    {
        const MutexHold hold(mutex_);
        stop_ = true;
    }
    for (std::size_t i = 0; i < helperCount_; i++)
        ::pthread_join(helpers_[i], nullptr);
}

// Allocates the slots on first use: without helpers none are needed, and nothing can fail.
bool WorkAhead::have_slots() noexcept
{
    const ErrnoSaver keep;
    if (!slots_)
        slots_ = malloc_array<Slot>(count_);
    return slots_ != nullptr;
}

void WorkAhead::exclude(std::size_t index) noexcept
{
    if (have_slots())
        slots_[index].state = State::kExcluded;
}

void WorkAhead::start() noexcept
{
    if (count_ > 1)
        start_helpers(std::min(processors_beside(1), count_ - 1));
}

void WorkAhead::start_helpers(std::size_t wanted) noexcept
{
    const ErrnoSaver keep;
    if (wanted == 0 || !have_slots())
        return;
    const std::size_t most = std::min(wanted, kHelpersMax);
    while (helperCount_ < most && start_task(&helpers_[helperCount_], help, this))
        helperCount_++;
}

std::size_t WorkAhead::processors_beside(std::size_t busy) noexcept
{
    const std::size_t processors = znTaskProcessors();
    return processors > busy ? processors - busy : 0;
}

// Takes the last open job for a helper. The caller takes jobs from the beginning, so that the two
// seldom wait for each other.
bool WorkAhead::begin(std::size_t* index) noexcept
{
    const MutexHold hold(mutex_);
    while (!stop_ && open_ > 0)
        if (Slot& slot = slots_[--open_]; slot.state == State::kOpen) {
            slot.state = State::kBegun;
            *index = open_;
            return true;
        }
    return false;
}

void WorkAhead::finish(Slot& slot, STATUS status) noexcept
{
    const int error = errno;
    const MutexHold hold(mutex_);
    slot = {State::kDone, status, error};
    ::pthread_cond_broadcast(&done_);
}

void* WorkAhead::help(void* self)
{
    auto& work = *static_cast<WorkAhead*>(self);
    const ProgressHelper helper(work.counts_);
    std::size_t index = 0;
    while (work.begin(&index)) {
        errno = 0;
        work.finish(work.slots_[index], work.job_(work.context_, index));
    }
    return nullptr;
}

// Waits up to 50 ms; true if the job is still running.
bool WorkAhead::is_still_running(std::size_t index) noexcept
{
    const MutexHold hold(mutex_);
    timespec until = {};
    ::clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_nsec += kWaitNs;
    until.tv_sec += until.tv_nsec / kSecond;
    until.tv_nsec %= kSecond;
    const Slot& slot = slots_[index];
    int rc = 0;
    while (slot.state == State::kBegun && rc == 0)
        rc = ::pthread_cond_clockwait(&done_, &mutex_, CLOCK_MONOTONIC, &until);
    return slot.state == State::kBegun;
}

STATUS WorkAhead::result(std::size_t index, Meanwhile meanwhile) noexcept
{
    if (helperCount_ == 0)
        return job_(context_, index);
    while (meanwhile != nullptr && is_still_running(index))
        meanwhile(context_, index);
    {
        const MutexHold hold(mutex_);
        Slot& slot = slots_[index];
        while (slot.state == State::kBegun)
            ::pthread_cond_wait(&done_, &mutex_);
        if (slot.state == State::kDone) {
            if (slot.status != OK)
                errno = slot.error;
            return slot.status;
        }
        slot.state = State::kExcluded; // executed by this thread
    }
    return job_(context_, index);
}

} // namespace znc
