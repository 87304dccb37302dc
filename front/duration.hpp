// duration.hpp - times and durations as text for users.
#ifndef ZNC_FRONT_DURATION_HPP
#define ZNC_FRONT_DURATION_HPP

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace zncctl {

// "5 seconds", "About a minute", "3 hours"; a negative duration counts as none.
std::string duration_text(std::time_t seconds);

// Formats a time in UTC as "2026-11-23T16:00:25Z" (RFC 3339).
std::string time_text(std::time_t time);
// Parses the result of time_text(); 0 if the text is not a time.
std::time_t time_of_text(const std::string& text);

// The same with nine decimals of the second and another separator and zone, as engines print it.
std::string precise_time_text(std::int64_t nanoseconds, char separator, std::string_view zone);

} // namespace zncctl

#endif
