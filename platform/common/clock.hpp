// clock.hpp - deadlines on the monotonic clock.
#ifndef ZN_PLATFORM_CLOCK_HPP
#define ZN_PLATFORM_CLOCK_HPP

#include "zarnel/task.h"

#include <cstdint>
#include <ctime>

namespace zn {

inline constexpr std::int64_t kNsPerSec = 1000000000;

inline std::int64_t now_ns() noexcept
{
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * kNsPerSec + ts.tv_nsec;
}

// The deadline of a wait of `ticks` (not negative) that begins now.
inline std::int64_t deadline_ns(int ticks) noexcept
{
    return now_ns() + static_cast<std::int64_t>(ticks) * kNsPerSec / znSysClkRateGet();
}

inline struct timespec to_timespec(std::int64_t ns) noexcept
{
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / kNsPerSec);
    ts.tv_nsec = static_cast<long>(ns % kNsPerSec);
    return ts;
}

// The milliseconds until a deadline; 0 if it has passed.
inline int milliseconds_until(std::int64_t deadline) noexcept
{
    const std::int64_t left = (deadline - now_ns()) / 1000000;
    return left > 0 ? static_cast<int>(left) : 0;
}

} // namespace zn

#endif
