// zncDigestTask.cpp - see zncDigestTask.hpp.
#include "zncDigestTask.hpp"

#include "zncWorkAhead.hpp"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t kRing = 1024 * 1024;
constexpr std::size_t kStep = 64 * 1024; // hashed at a time

} // namespace

namespace znc {

bool DigestTask::start(RunningDigest& digest) noexcept
{
    const ErrnoSaver keep;
    if (WorkAhead::processors_beside(1) == 0)
        return false;
    ring_ = malloc_array<char>(kRing);
    digest_ = &digest;
    given_ = 0;
    hashed_ = 0;
    end_ = false;
    if (ring_ && !start_task(&task_, work, this))
        ring_.reset();
    return runs();
}

void DigestTask::give(const void* data, std::size_t len) noexcept
{
    const auto* bytes = static_cast<const char*>(data);
    while (len > 0) {
        std::size_t room = 0;
        {
            const MutexHold hold(mutex_);
            while (given_ - hashed_ == kRing)
                ::pthread_cond_wait(&changed_, &mutex_);
            room = kRing - (given_ - hashed_);
        }
        // What is free stays free until it is given.
        const std::size_t at = given_ % kRing;
        const std::size_t part = std::min({len, room, kRing - at});
        std::memcpy(ring_.get() + at, bytes, part);
        bytes += part;
        len -= part;
        const MutexHold hold(mutex_);
        given_ += part;
        ::pthread_cond_signal(&changed_);
    }
}

void DigestTask::finish() noexcept
{
    if (!runs())
        return;
    {
        const MutexHold hold(mutex_);
        end_ = true;
        ::pthread_cond_signal(&changed_);
    }
    ::pthread_join(task_, nullptr);
    ring_.reset();
}

// What is to be hashed next; false: nothing, for good.
bool DigestTask::next(std::size_t* at, std::size_t* len) noexcept
{
    const MutexHold hold(mutex_);
    while (given_ == hashed_ && !end_)
        ::pthread_cond_wait(&changed_, &mutex_);
    *at = hashed_ % kRing;
    *len = std::min({given_ - hashed_, kStep, kRing - *at});
    return *len > 0;
}

void* DigestTask::work(void* self)
{
    auto& task = *static_cast<DigestTask*>(self);
    std::size_t at = 0;
    std::size_t len = 0;
    while (task.next(&at, &len)) {
        task.digest_->update(task.ring_.get() + at, len);
        const MutexHold hold(task.mutex_);
        task.hashed_ += len;
        ::pthread_cond_signal(&task.changed_);
    }
    return nullptr;
}

} // namespace znc
