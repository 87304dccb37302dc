// log.hpp - the daemon's messages: lines on standard error with their level. If JOURNAL_STREAM
// is set, each line also has the level prefix that the journal evaluates. Used on the daemon task
// only.
#ifndef ZNCD_LOG_HPP
#define ZNCD_LOG_HPP

#include <string_view>

namespace zncd {

enum class Level { kError = 3, kWarning = 4, kInfo = 6, kDebug = 7 }; // syslog levels

// Sets the least severe level that is logged: "error", "warning", "info" (the initial one) or
// "debug". False for any other word.
bool set_log_level(std::string_view name);

void log(Level level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Logs `what` and strerror(errno) as an error.
void log_errno(const char* what);

} // namespace zncd

#endif
