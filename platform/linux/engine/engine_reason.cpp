#include "engine_reason.hpp"

#include "system/pidfd.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace zn {
namespace {

// The C library's message in lower case, because engines search for that.
void describe(int error, char (&text)[128])
{
    const char* message = ::strerrordesc_np(error);
    std::snprintf(text, sizeof text, "%s", message != nullptr ? message : "unknown error");
    text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
}

} // namespace

int Reason::say(int error, const char* format, ...)
{
    if (error == 0 || given_)
        return error;
    given_ = true;
    va_list values;
    va_start(values, format);
    (void)std::vsnprintf(text_, size_, format, values);
    va_end(values);
    return error;
}

int Reason::say_errno(int error, const char* format, ...)
{
    if (error == 0 || given_)
        return error;
    given_ = true;
    va_list values;
    va_start(values, format);
    const int len = std::vsnprintf(text_, size_, format, values);
    va_end(values);
    char message[128];
    describe(error, message);
    const std::size_t at = std::min(static_cast<std::size_t>(len < 0 ? 0 : len), size_ - 1);
    std::snprintf(text_ + at, size_ - at, ": %s", message);
    return error;
}

int Reason::say_first(int error, int pidfd)
{
    constexpr int kEndMilliseconds = 1000; // its socket is closed before it is a zombie
    siginfo_t info = {};
    const bool ended = error == ESRCH && pidfd >= 0 && process_ended(pidfd, kEndMilliseconds) &&
                       ::waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(pidfd), &info,
                                WEXITED | WNOWAIT | WNOHANG | __WALL) == 0 &&
                       info.si_pid != 0;
    if (!ended)
        return say_errno(error, "the container's first process");
    return info.si_code == CLD_EXITED
               ? say(error, "the container's first process ended with status %d", info.si_status)
               : say(error, "the container's first process was killed by signal %d",
                     info.si_status);
}

int Reason::say_fault(int error, const SettingsFault& fault)
{
    if (fault.field[0] == '\0')
        return say_errno(error, "config.json");
    return say(error, "%s: %s", fault.field, fault.reason);
}

int Reason::say_program(int error, wire::SpawnReport::Kind kind, const char* program,
                        const char* directory)
{
    char message[128];
    describe(error, message);
    switch (kind) {
    case wire::SpawnReport::Kind::kDirectory:
        return say(error, "chdir to cwd (\"%s\") set in config.json failed: %s", directory,
                   message);
    case wire::SpawnReport::Kind::kLimits:
        return say(error, "process.rlimits: %s", message);
    case wire::SpawnReport::Kind::kRights:
        return say(error, "process.user, capabilities or seccomp: %s", message);
    case wire::SpawnReport::Kind::kProgram:
        break;
    case wire::SpawnReport::Kind::kListener:
    case wire::SpawnReport::Kind::kPid:
    case wire::SpawnReport::Kind::kError:
        return say(error, "cannot set up the program's process: %s", message);
    }
    if (error == ENOENT && std::strchr(program, '/') == nullptr)
        return say(error, "exec: \"%s\": executable file not found in $PATH", program);
    if (error == ENOENT)
        return say(error, "exec: \"%s\": stat %s: no such file or directory", program, program);
    if (error == EISDIR) // engines look for the words of a file that cannot be executed
        return say(error, "exec: \"%s\": permission denied: is a directory", program);
    if (error == ENOEXEC)
        return say(error, "exec %s: exec format error", program);
    return say(error, "exec: \"%s\": %s", program, message);
}

} // namespace zn
