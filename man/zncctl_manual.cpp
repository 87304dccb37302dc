// zncctl_manual.cpp - generates the scdoc source of a manual page of zncctl: name, synopsis and
// options from the table of commands, the rest from standard input.
//
// usage: zncctl_manual PAGE <TEXT >SOURCE
//
// PAGE is "zncctl", or "zncctl-" and the words of a command joined by dashes. The lines "@OPTIONS@"
// and "@COMMANDS@" of TEXT are replaced by the lists of options and of commands.
#include "cli/commands/commands.hpp"
#include "front/usage.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <iostream>
#include <string>

namespace {

std::string page_of(const zncctl::Command& command)
{
    std::string page = fmt::format("zncctl-{}", command.name);
    std::replace(page.begin(), page.end(), ' ', '-');
    return page;
}

std::string list_of_options(const zncctl::Command& command)
{
    std::string text;
    for (const zncctl::Option& option : command.options) {
        if (option.letter != 0)
            text += fmt::format("*-{}*, ", option.letter);
        text += fmt::format("*--{}*", option.name);
        if (option.value != nullptr)
            text += fmt::format(" _{}_", option.value);
        text += fmt::format("\n\t{}\n", option.help);
    }
    return text;
}

std::string list_of_commands()
{
    std::string text;
    for (const zncctl::Command& command : zncctl::commands())
        text += fmt::format("*{}*(1)\n\t{}\n", page_of(command), command.help);
    return text;
}

std::string head_of(const zncctl::Command& command)
{
    std::string text = fmt::format("{0}(1)\n\n# NAME\n\n{0} - {1}\n\n# SYNOPSIS\n\n{2}",
                                   page_of(command), command.help, zncctl::synopsis(command));
    if (command.aliases[0] != '\0')
        text += fmt::format("\nOther names of the command: {}\n", command.aliases);
    return text + "\n";
}

const zncctl::Command* command_of(const std::string& page)
{
    const auto all = zncctl::commands();
    const auto found = std::find_if(all.begin(), all.end(), [&](const zncctl::Command& command) {
        return page_of(command) == page;
    });
    return found != all.end() ? &*found : nullptr;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string page = argc == 2 ? argv[1] : "";
    const zncctl::Command* command = command_of(page);
    if (command == nullptr && page != "zncctl") {
        std::cerr << "zncctl_manual: no command for the page '" << page << "'\n";
        return 1;
    }
    if (command != nullptr)
        std::cout << head_of(*command);
    for (std::string line; std::getline(std::cin, line);) {
        if (line == "@OPTIONS@" && command != nullptr)
            std::cout << list_of_options(*command);
        else if (line == "@COMMANDS@")
            std::cout << list_of_commands();
        else
            std::cout << line << '\n';
    }
    return std::cout.flush().good() ? 0 : 1;
}
