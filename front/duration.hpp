// duration.hpp - times and durations for people.
#ifndef ZNC_FRONT_DURATION_HPP
#define ZNC_FRONT_DURATION_HPP

#include <ctime>
#include <string>

namespace zncctl {

// "5 seconds", "About a minute", "3 hours"; a negative duration counts as none.
std::string duration_text(std::time_t seconds);

// The time that time_text() wrote; 0 if the text is none.
std::time_t time_of_text(const std::string& text);

} // namespace zncctl

#endif
