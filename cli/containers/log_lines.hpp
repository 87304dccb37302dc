// log_lines.hpp - selects the lines of a log by time, and puts the times at which they were written
// before them. Used by logs and events.
#ifndef ZNC_CLI_CONTAINERS_LOG_LINES_HPP
#define ZNC_CLI_CONTAINERS_LOG_LINES_HPP

#include "log_file.hpp"

#include <ctime>
#include <optional>

namespace zncctl {

// A time that a user gives: "2026-11-22T13:00:00Z", seconds since the epoch, or a duration such as
// "10m" or "1h30m" before `now`. Nullopt if it is none.
std::optional<std::time_t> read_past_time(std::string_view text, std::time_t now);

// The same, but a duration is after `now`.
std::optional<std::time_t> read_future_time(std::string_view text, std::time_t now);

class LogLines {
  public:
    // Lines that begin before `since` are left out; 0: none.
    LogLines(bool timestamps, std::time_t since) : timestamps_(timestamps), since_(since) {}

    // The text to print for the next parts of a log.
    std::string add(const std::vector<LogPart>& parts);

  private:
    bool timestamps_;
    std::time_t since_;
    bool at_start_ = true; // of a line
    bool wanted_ = true;   // the line
};

} // namespace zncctl

#endif
