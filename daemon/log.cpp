#include "log.hpp"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "zarnel/fs.h"

namespace zncd {
namespace {

constexpr std::array<std::pair<std::string_view, Level>, 4> kNames = {{{"error", Level::kError},
                                                                       {"warning", Level::kWarning},
                                                                       {"info", Level::kInfo},
                                                                       {"debug", Level::kDebug}}};

Level highest = Level::kInfo;

const char* name_of(Level level)
{
    for (const auto& [name, value] : kNames)
        if (value == level)
            return name.data();
    return "";
}

} // namespace

bool set_log_level(std::string_view name)
{
    for (const auto& [known, level] : kNames)
        if (name == known) {
            highest = level;
            return true;
        }
    return false;
}

void log(Level level, const char* format, ...)
{
    if (level > highest)
        return;
    std::array<char, 1024> text{};
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    for (char& c : text) // ids may contain any byte, and a message must be one line
        if (c != '\0' && (static_cast<unsigned char>(c) < ' ' || c == '\x7f'))
            c = '?';
    if (std::getenv("JOURNAL_STREAM") != nullptr)
        std::fprintf(stderr, "<%d>", static_cast<int>(level));
    std::fprintf(stderr, "zncd: %s: %s\n", name_of(level), text.data());
}

void log_errno(const char* what)
{
    std::array<char, 256> reason{};
    znErrorText(errno, reason.data(), reason.size());
    log(Level::kError, "%s: %s", what, reason.data());
}

} // namespace zncd
