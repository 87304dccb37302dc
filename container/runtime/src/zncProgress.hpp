// zncProgress.hpp - tells a caller who asked for it how far an unpack is. Used by the image module,
// which knows the layer, and by the archive readers, which know the position in its file. Nothing
// is called, and nothing costs more than a look at a pointer, unless zncUnpackProgressSet was.
#ifndef ZNCPROGRESS_HPP
#define ZNCPROGRESS_HPP

#include <atomic>
#include <cstdint>

namespace znc {

// While it lives, the calling task reads the archive `file` as layer `index` of `count`.
class LayerProgress {
  public:
    LayerProgress(const char* file, std::uint32_t index, std::uint32_t count) noexcept;
    ~LayerProgress();
    LayerProgress(const LayerProgress&) = delete;
    LayerProgress& operator=(const LayerProgress&) = delete;

    // The layer is complete, also when it was there before.
    void complete() noexcept;
};

// Who listens is told by his own task only. One that helps writes its position down while this
// lives, and he looks at it from time to time.
class ProgressElsewhere {
  public:
    explicit ProgressElsewhere(std::atomic<std::uint64_t>& position) noexcept;
    ~ProgressElsewhere();
    ProgressElsewhere(const ProgressElsewhere&) = delete;
    ProgressElsewhere& operator=(const ProgressElsewhere&) = delete;
};
void progress_follow(const std::atomic<std::uint64_t>& position) noexcept;

// What the tasks of one unpack count together.
struct UnpackCounts {
    std::atomic<std::uint64_t> leftOut = 0;
};
// Of the calling task; null: nobody listens to it.
UnpackCounts* progress_counts() noexcept;

// While it lives, the calling task helps the one that those are of.
class ProgressHelper {
  public:
    explicit ProgressHelper(UnpackCounts* counts) noexcept;
    ~ProgressHelper();
    ProgressHelper(const ProgressHelper&) = delete;
    ProgressHelper& operator=(const ProgressHelper&) = delete;
};

// A member was extracted otherwise than its maker meant.
void progress_left_out() noexcept;

// So many bytes of the archive have been read; keeps the task error number. The second asks its
// descriptor how many, if anybody wants to know.
void progress_at(std::uint64_t position) noexcept;
void progress_read(int fd) noexcept;

} // namespace znc

#endif
