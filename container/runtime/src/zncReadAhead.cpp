// zncReadAhead.cpp - see zncReadAhead.hpp.
#include "zncReadAhead.hpp"

#include "base/failure.hpp"
#include "zncProgress.hpp"
#include "zncWorkAhead.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr std::size_t kSlotLen = 256 * 1024; // large enough that the cost of wake-ups is negligible

} // namespace

namespace znc {

bool ReadAhead::start(Read read, void* source) noexcept
{
    const ErrnoSaver keep;
    if (WorkAhead::processors_beside(1) == 0)
        return false;
    memory_ = malloc_array<char>(kSlots * kSlotLen);
    read_ = read;
    from_ = source;
    filled_ = emptied_ = taken_ = 0;
    stop_ = false;
    if (memory_ && !start_task(&task_, work, this))
        memory_.reset();
    return memory_ != nullptr;
}

void ReadAhead::stop() noexcept
{
    if (!memory_)
        return;
    {
        const MutexHold hold(mutex_);
        stop_ = true;
        ::pthread_cond_signal(&changed_);
    }
    const ErrnoSaver keep;
    ::pthread_join(task_, nullptr);
    memory_.reset();
}

char* ReadAhead::bytes(std::size_t slot) const noexcept
{
    return memory_.get() + slot % kSlots * kSlotLen;
}

// Waits for an empty slot. False if stop() was called.
bool ReadAhead::wait_for_room() noexcept
{
    const MutexHold hold(mutex_);
    while (filled_ - emptied_ == kSlots && !stop_)
        ::pthread_cond_wait(&changed_, &mutex_);
    return !stop_;
}

void ReadAhead::wait_for_bytes() noexcept
{
    const MutexHold hold(mutex_);
    while (filled_ == emptied_)
        ::pthread_cond_wait(&changed_, &mutex_);
}

void ReadAhead::count(std::size_t& slots) noexcept
{
    const MutexHold hold(mutex_);
    ++slots;
    ::pthread_cond_signal(&changed_);
}

void* ReadAhead::work(void* self)
{
    auto& ahead = *static_cast<ReadAhead*>(self);
    const ProgressElsewhere elsewhere(ahead.position_);
    bool more = true;
    while (more && ahead.wait_for_room()) {
        Slot& slot = ahead.slots_[ahead.filled_ % kSlots];
        errno = 0;
        slot.len = ahead.read_(ahead.from_, ahead.bytes(ahead.filled_), kSlotLen);
        slot.error = errno;
        more = slot.len > 0;
        ahead.count(ahead.filled_);
    }
    return nullptr;
}

ssize_t ReadAhead::take(char* buffer, std::size_t count) noexcept
{
    std::size_t got = 0;
    while (got < count) {
        wait_for_bytes();
        const Slot& slot = slots_[emptied_ % kSlots];
        if (slot.len <= 0) { // end or error: kept, so that the next call returns it again
            if (got > 0 || slot.len == 0)
                break;
            return znc::fail(slot.error);
        }
        const auto len = static_cast<std::size_t>(slot.len);
        const std::size_t part = std::min(count - got, len - taken_);
        std::memcpy(buffer + got, bytes(emptied_) + taken_, part);
        got += part;
        taken_ += part;
        if (taken_ == len) {
            taken_ = 0;
            this->count(emptied_);
        }
    }
    progress_at(position_);
    return static_cast<ssize_t>(got);
}

ssize_t ReadAhead::read_stream(void* stream, void* buffer, std::size_t count)
{
    return static_cast<Stream*>(stream)->self->take(static_cast<char*>(buffer), count);
}

} // namespace znc
