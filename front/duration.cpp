#include "duration.hpp"

#include <fmt/format.h>

namespace zncctl {

std::string duration_text(std::time_t seconds)
{
    constexpr std::time_t kMinute = 60;
    constexpr std::time_t kHour = 60 * kMinute;
    constexpr std::time_t kDay = 24 * kHour;
    if (seconds < 1)
        return "Less than a second";
    if (seconds == 1)
        return "1 second";
    if (seconds < kMinute)
        return fmt::format("{} seconds", seconds);
    if (seconds < 2 * kMinute)
        return "About a minute";
    if (seconds < kHour)
        return fmt::format("{} minutes", seconds / kMinute);
    if (seconds < 2 * kHour)
        return "About an hour";
    if (seconds < 2 * kDay)
        return fmt::format("{} hours", seconds / kHour);
    if (seconds < 14 * kDay)
        return fmt::format("{} days", seconds / kDay);
    if (seconds < 60 * kDay)
        return fmt::format("{} weeks", seconds / (7 * kDay));
    if (seconds < 2 * 365 * kDay)
        return fmt::format("{} months", seconds / (30 * kDay));
    return fmt::format("{} years", seconds / (365 * kDay));
}

std::time_t time_of_text(const std::string& text)
{
    std::tm utc = {};
    const char* end = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return end != nullptr && *end == '\0' ? ::timegm(&utc) : 0;
}

} // namespace zncctl
