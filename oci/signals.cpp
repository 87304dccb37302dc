#include "signals.hpp"

#include "front/words.hpp"

#include <cctype>
#include <cstring>
#include <string>

namespace zncrun {
namespace {

// "RTMIN+3", "RTMAX-1"; -1 otherwise.
int real_time_number(std::string_view name)
{
    const bool fromLeast = name.rfind("RTMIN", 0) == 0;
    if (!fromLeast && name.rfind("RTMAX", 0) != 0)
        return -1;
    const std::string_view rest = name.substr(5);
    if (rest.empty())
        return fromLeast ? SIGRTMIN : SIGRTMAX;
    const auto offset = zncctl::to_number<int>(rest.substr(1));
    if (!offset || rest[0] != (fromLeast ? '+' : '-') || *offset < 0 ||
        *offset > SIGRTMAX - SIGRTMIN)
        return -1;
    return fromLeast ? SIGRTMIN + *offset : SIGRTMAX - *offset;
}

} // namespace

int signal_number(std::string_view text)
{
    if (const auto number = zncctl::to_number<int>(text))
        return *number >= 0 && *number <= SIGRTMAX ? *number : -1;
    std::string name(text);
    for (char& c : name)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (name.rfind("SIG", 0) == 0)
        name.erase(0, 3);
    for (int signal = 1; signal < SIGRTMIN; signal++) {
        const char* known = ::sigabbrev_np(signal);
        if (known != nullptr && name == known)
            return signal;
    }
    return real_time_number(name);
}

} // namespace zncrun
