// log.hpp - the daemon's messages: lines on standard error, each with its level. Under systemd the
// level also stands in front as the journal reads it. Used by all of the daemon, on its one task.
#ifndef ZNCD_LOG_HPP
#define ZNCD_LOG_HPP

#include <string_view>

namespace zncd {

enum class Level { kError = 3, kWarning = 4, kInfo = 6, kDebug = 7 }; // numbers of syslog

// "error", "warning", "info" (at the start) or "debug": messages above it are dropped. False for
// any other word.
bool set_log_level(std::string_view name);

void log(Level level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// An error: what it is about, and what the task error number says.
void log_errno(const char* what);

} // namespace zncd

#endif
