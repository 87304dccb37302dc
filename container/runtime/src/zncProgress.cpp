// zncProgress.cpp
#include "zncProgress.hpp"

#include "zncOwned.hpp"
#include "zncontainer.h"

#include <algorithm>
#include <cstring>
#include <sys/stat.h>

namespace {

// Who listens belongs to the task, as the unpack does.
thread_local ZNC_PROGRESS_FUNC listener = nullptr;
thread_local void* listener_context = nullptr;
thread_local ZNC_PROGRESS current = {};
thread_local znc::UnpackCounts own_counts;
thread_local znc::UnpackCounts* counts = nullptr;
thread_local std::atomic<std::uint64_t>* written_down = nullptr; // by a task that helps

void tell(std::uint64_t done)
{
    const znc::ErrnoSaver keep;
    current.done = std::min(done, current.total);
    current.leftOut = own_counts.leftOut;
    const ZNC_PROGRESS copy = current; // the listener may not change what is told next
    listener(&copy, listener_context);
}

bool listening()
{
    return listener != nullptr && current.layer != nullptr;
}

} // namespace

void zncUnpackProgressSet(ZNC_PROGRESS_FUNC func, void* context)
{
    listener = func;
    listener_context = context;
    own_counts.leftOut = 0;
    counts = func != nullptr ? &own_counts : nullptr;
}

namespace znc {

LayerProgress::LayerProgress(const char* file, std::uint32_t index, std::uint32_t count) noexcept
{
    if (listener == nullptr)
        return;
    const ErrnoSaver keep;
    struct stat st = {};
    const bool known = ::stat(file, &st) == 0 && st.st_size > 0;
    const char* const slash = std::strrchr(file, '/');
    current = ZNC_PROGRESS{slash != nullptr ? slash + 1 : file,
                           index,
                           count,
                           0,
                           known ? static_cast<std::uint64_t>(st.st_size) : 0,
                           0};
    tell(0);
}

LayerProgress::~LayerProgress()
{
    current = ZNC_PROGRESS{};
}

void LayerProgress::complete() noexcept
{
    if (listening())
        tell(current.total);
}

UnpackCounts* progress_counts() noexcept
{
    return counts;
}

ProgressHelper::ProgressHelper(UnpackCounts* of) noexcept
{
    counts = of;
}

ProgressHelper::~ProgressHelper()
{
    counts = nullptr;
}

void progress_left_out() noexcept
{
    if (counts != nullptr)
        ++counts->leftOut;
}

ProgressElsewhere::ProgressElsewhere(std::atomic<std::uint64_t>& position) noexcept
{
    written_down = &position;
}

ProgressElsewhere::~ProgressElsewhere()
{
    written_down = nullptr;
}

void progress_follow(const std::atomic<std::uint64_t>& position) noexcept
{
    const std::uint64_t at = position;
    if (listening() && at > current.done && at < current.total)
        tell(at);
}

void progress_at(std::uint64_t position) noexcept
{
    // At the end comes the report of the whole layer, once it is extracted.
    if (listening() && position > current.done && position < current.total)
        tell(position);
    else if (!listening() && written_down != nullptr)
        *written_down = position;
}

void progress_read(int fd) noexcept
{
    if (!listening() && written_down == nullptr)
        return;
    const ErrnoSaver keep;
    progress_at(static_cast<std::uint64_t>(std::max<off_t>(::lseek(fd, 0, SEEK_CUR), 0)));
}

} // namespace znc
