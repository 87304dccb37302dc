// duration.hpp - times and durations as text for users.
#ifndef ZNC_FRONT_DURATION_HPP
#define ZNC_FRONT_DURATION_HPP

#include <ctime>
#include <string>

namespace zncctl {

// "5 seconds", "About a minute", "3 hours"; a negative duration counts as none.
std::string duration_text(std::time_t seconds);

// Parses the result of time_text(); 0 if the text is not a time.
std::time_t time_of_text(const std::string& text);

} // namespace zncctl

#endif
