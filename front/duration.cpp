#include "duration.hpp"

#include <chrono>

#include <fmt/format.h>

namespace zncctl {
namespace {

// gmtime() would read the time zone of the machine.
std::string date_and_time(std::time_t time, char separator)
{
    using std::chrono::days;
    using std::chrono::floor;
    const std::chrono::sys_seconds seconds{std::chrono::seconds(time)};
    const auto day = floor<days>(seconds);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(seconds - day);
    return fmt::format("{:04}-{:02}-{:02}{}{:02}:{:02}:{:02}", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                       separator, clock.hours().count(), clock.minutes().count(),
                       clock.seconds().count());
}

} // namespace

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

std::string time_text(std::time_t time)
{
    return date_and_time(time, 'T') + "Z";
}

std::string precise_time_text(std::int64_t nanoseconds, char separator, std::string_view zone)
{
    const std::chrono::nanoseconds all(nanoseconds);
    const auto seconds = std::chrono::floor<std::chrono::seconds>(all);
    return fmt::format("{}.{:09}{}", date_and_time(seconds.count(), separator),
                       (all - seconds).count(), zone);
}

std::time_t time_of_text(const std::string& text)
{
    std::tm utc = {};
    const char* end = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return end != nullptr && *end == '\0' ? ::timegm(&utc) : 0;
}

} // namespace zncctl
