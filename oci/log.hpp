// log.hpp - appends messages to the log file given by --log. Without that option nothing is logged
// but what --debug asks for.
#ifndef ZNC_OCI_LOG_HPP
#define ZNC_OCI_LOG_HPP

#include "context.hpp"

namespace zncrun {

// Appends a line with a level, "error" or "warning". Engines show the last line with the level
// "error".
void log_line(const Context& context, const char* level, const std::string& message);

// With --debug, a line about what is done, with the level "debug": in the log, or without one on
// standard error.
void debug_line(const Context& context, const std::string& message);

// Fails if the log is no regular file: opening a FIFO could block until it has a reader.
void check_log(const Context& context);

} // namespace zncrun

#endif
