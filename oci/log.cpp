#include "log.hpp"

#include "front/duration.hpp"
#include "front/files.hpp"
#include "front/json.hpp"

#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace zncrun {

namespace {

std::string line_of(const Context& context, const char* level, const std::string& message)
{
    const std::string time = zncctl::time_text(std::time(nullptr));
    if (!context.log_json)
        return fmt::format("time=\"{}\" level={} msg={:?}\n", time, level, message);
    zncctl::Json line = zncctl::Json::object();
    line["level"] = level;
    line["msg"] = message;
    line["time"] = time;
    return zncctl::compact(line) + "\n";
}

} // namespace

void debug_line(const Context& context, const std::string& message)
{
    if (context.debug && context.log.empty())
        static_cast<void>(znc::write_all(STDERR_FILENO, line_of(context, "debug", message)));
    else if (context.debug)
        log_line(context, "debug", message);
}

void log_line(const Context& context, const char* level, const std::string& message)
{
    if (context.log.empty())
        return;
    const std::string text = line_of(context, level, message);
    // The command continues if the log cannot be written.
    const znc::UniqueFd log(
        ::open(context.log.c_str(),
               O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
    struct stat st = {};
    if (log && ::fstat(log.get(), &st) == 0 && S_ISREG(st.st_mode))
        static_cast<void>(znc::write_all(log.get(), text));
}

void check_log(const Context& context)
{
    struct stat st = {};
    if (!context.log.empty() && ::stat(context.log.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
        throw Failure(fmt::format("--log: {}: not a regular file", context.log));
}

} // namespace zncrun
