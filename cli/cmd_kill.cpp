#include "command.hpp"
#include "output.hpp"
#include "signal_number.hpp"

#include <charconv>
#include <string>

#include "zncontainer.h"

int zncctl::signal_number(const char* text)
{
    const std::string_view given = text;
    int number = -1;
    const auto [end, error] = std::from_chars(text, text + given.size(), number);
    if (error == std::errc() && end == text + given.size())
        return number >= 0 ? number : -1;
    std::string name(given);
    for (char& c : name)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    const std::size_t prefix = name.starts_with("SIG") ? 3 : 0;
    return zncUtilSignalNo(name.c_str() + prefix);
}

int zncctl::cmd_kill(const Arguments& args)
{
    if (args.has("signal") && args.operands() > 1)
        return usage_failure("the signal is given twice");
    const char* wanted = args.operand(1, args.value("signal", "TERM"));
    const int signo = signal_number(wanted);
    if (signo < 0)
        return usage_failure(std::string("unknown signal '") + wanted + "'");
    const unsigned option = args.has("all") ? ZNC_OPT_WHOLE_NAMESPACE : 0;
    if (call_library([&] { return zncKill(args.operand(0), signo, option); }) != OK)
        return daemon_failure(errno);
    return kExitOk;
}
