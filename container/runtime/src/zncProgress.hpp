// zncProgress.hpp - reports the progress of an unpack to the callback set with
// zncUnpackProgressSet. Used by the image module, which knows the layer, and by the archive
// readers, which know the offset in its file. Without a callback these functions only test a
// pointer.
#ifndef ZNCPROGRESS_HPP
#define ZNCPROGRESS_HPP

#include "base/not_copied.hpp"

#include <atomic>
#include <cstdint>

namespace znc {

// While an object exists, the calling thread reads the archive `file` as layer `index` of `count`.
class LayerProgress : znc::NotCopied {
  public:
    LayerProgress(const char* file, std::uint32_t index, std::uint32_t count) noexcept;
    ~LayerProgress();

    // Reports the layer as complete, also if the store already had it.
    void complete() noexcept;
};

// The callback runs only on the thread that called zncUnpack. While an object of this class exists,
// a helper thread stores its offset in `position` instead, and the calling thread polls it with
// progress_follow().
class ProgressElsewhere : znc::NotCopied {
  public:
    explicit ProgressElsewhere(std::atomic<std::uint64_t>& position) noexcept;
    ~ProgressElsewhere();
};
void progress_follow(const std::atomic<std::uint64_t>& position) noexcept;

// Counters shared by all threads of one unpack.
struct UnpackCounts {
    std::atomic<std::uint64_t> leftOut = 0;
};
// The counters of the calling thread; null if it has no callback.
UnpackCounts* progress_counts() noexcept;

// While an object exists, the calling thread adds to the counters of the thread that it helps.
class ProgressHelper : znc::NotCopied {
  public:
    explicit ProgressHelper(UnpackCounts* counts) noexcept;
    ~ProgressHelper();
};

// Counts a member that was not extracted as the archive describes it.
void progress_left_out() noexcept;

// To be called after reading from the archive: `position` is the number of bytes read so far.
// progress_read() takes it from the offset of the archive's descriptor, and only if progress is
// reported. Both leave errno unchanged.
void progress_at(std::uint64_t position) noexcept;
void progress_read(int fd) noexcept;

} // namespace znc

#endif
