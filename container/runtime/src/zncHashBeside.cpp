// zncHashBeside.cpp - see zncHashBeside.hpp.
#include "zncHashBeside.hpp"

#include "zncWorkAhead.hpp"

namespace znc {

bool HashBeside::start(RunningDigest& digest) noexcept
{
    const ErrnoSaver keep;
    if (is_running() || WorkAhead::processors_beside(1) == 0)
        return false;
    memory_ = malloc_array<unsigned char>(kPieces * kPieceLen);
    digest_ = &digest;
    added_ = hashed_ = 0;
    finish_ = false;
    if (memory_ && !start_task(&task_, work, this))
        memory_.reset();
    return is_running();
}

void HashBeside::finish() noexcept
{
    if (!is_running())
        return;
    {
        const MutexHold hold(mutex_);
        finish_ = true;
        ::pthread_cond_signal(&changed_);
    }
    const ErrnoSaver keep;
    ::pthread_join(task_, nullptr);
    memory_.reset();
}

unsigned char* HashBeside::bytes(std::size_t piece) const noexcept
{
    return memory_.get() + piece % kPieces * kPieceLen;
}

unsigned char* HashBeside::piece() noexcept
{
    const MutexHold hold(mutex_);
    while (added_ - hashed_ == kPieces)
        ::pthread_cond_wait(&changed_, &mutex_);
    return bytes(added_);
}

void HashBeside::add(std::size_t len) noexcept
{
    const MutexHold hold(mutex_);
    lengths_[added_ % kPieces] = len;
    added_++;
    if (added_ - hashed_ == kWorthwhile)
        ::pthread_cond_signal(&changed_);
}

// The number of pieces that can be hashed; 0 if there will be no more.
std::size_t HashBeside::wait_for_pieces() noexcept
{
    const MutexHold hold(mutex_);
    while (added_ - hashed_ < kWorthwhile && !finish_)
        ::pthread_cond_wait(&changed_, &mutex_);
    return added_ - hashed_;
}

void HashBeside::count_hashed() noexcept
{
    const MutexHold hold(mutex_);
    hashed_++;
    ::pthread_cond_signal(&changed_);
}

void* HashBeside::work(void* self)
{
    auto& beside = *static_cast<HashBeside*>(self);
    for (std::size_t pieces; (pieces = beside.wait_for_pieces()) > 0;)
        for (; pieces > 0; pieces--) {
            // Only this thread changes hashed_, and the lengths of added pieces do not change.
            const std::size_t next = beside.hashed_;
            beside.digest_->update(beside.bytes(next), beside.lengths_[next % kPieces]);
            beside.count_hashed();
        }
    return nullptr;
}

} // namespace znc
