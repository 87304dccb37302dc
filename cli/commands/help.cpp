// The texts that describe all commands.
#include "commands.hpp"
#include "front/usage.hpp"

#include <algorithm>

namespace zncctl {

std::string usage_line()
{
    return "usage: zncctl COMMAND [ARGUMENTS] | --help | --version\n";
}

std::string help_text()
{
    std::string text = usage_line() + "\ncommands:\n";
    std::size_t width = 0;
    for (const Command& command : commands())
        width = std::max(width, std::string_view(command.name).size());
    for (const Command& command : commands())
        text += table_row(command.name, command.help, width);
    return text + "\n'zncctl COMMAND --help' describes one command.\n";
}

std::string manual_text()
{
    std::string text;
    for (const Command& command : commands())
        text += manual_entry(command);
    return text;
}

} // namespace zncctl
