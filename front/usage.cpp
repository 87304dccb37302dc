#include "usage.hpp"

#include "words.hpp"

#include <algorithm>
#include <fmt/format.h>

namespace zncctl {
namespace {

// Formats an option: "-s, --signal SIG".
std::string option_text(const Option& option)
{
    std::string text;
    if (option.letter != 0)
        text = fmt::format("-{}, ", option.letter);
    text += fmt::format("--{}", option.name);
    if (option.value != nullptr)
        text += fmt::format(" {}", option.value);
    return text;
}

// scdoc markup: bold for literal text, underlined for placeholders.
std::string bold(std::string_view text)
{
    return fmt::format("*{}*", text);
}

std::string underlined(std::string_view text)
{
    return fmt::format("_{}_", text);
}

std::string option_markup(const Option& option)
{
    std::string text;
    if (option.letter != 0)
        text = bold(fmt::format("-{}", option.letter)) + "|";
    text += bold(fmt::format("--{}", option.name));
    if (option.value != nullptr)
        text += " " + underlined(option.value);
    return text;
}

// Formats an operand. Brackets and dots are not part of its name: "[BUNDLE...]".
std::string operand_markup(std::string_view operand)
{
    constexpr std::string_view kDots = "...";
    const bool optional = operand.starts_with('[') && operand.ends_with(']');
    if (optional)
        operand = operand.substr(1, operand.size() - 2);
    const bool many = operand.ends_with(kDots);
    if (many)
        operand.remove_suffix(kDots.size());
    const std::string text = underlined(operand) + (many ? "..." : "");
    return optional ? "[" + text + "]" : text;
}

} // namespace

std::string usage_line(const Command& command)
{
    std::string line = fmt::format("usage: zncctl {}", command.name);
    if (!command.options.empty())
        line += " [OPTION...]";
    if (command.arguments[0] != '\0')
        line += fmt::format(" {}", command.arguments);
    return line + "\n";
}

std::string help_text(const Command& command)
{
    std::string text = usage_line(command) + "\n" + command.help + "\n";
    if (command.aliases[0] != '\0')
        text += fmt::format("\naliases: {}\n", command.aliases);
    std::size_t width = 0;
    for (const Option& option : command.options)
        width = std::max(width, option_text(option).size());
    if (width != 0)
        text += "\noptions:\n";
    for (const Option& option : command.options)
        text += table_row(option_text(option), option.help, width);
    return text;
}

std::string synopsis(const Command& command)
{
    std::string line = bold(fmt::format("zncctl {}", command.name));
    for (const Option& option : command.options)
        line += fmt::format(" [{}]", option_markup(option));
    for (const std::string& operand : split_words(command.arguments))
        line += " " + operand_markup(operand);
    return line + "\n";
}

std::string manual_entry(const Command& command)
{
    std::string text = synopsis(command) + "\t" + command.help + "\n\n";
    for (const Option& option : command.options)
        text += fmt::format("\t{}\n\t\t{}\n\n", option_markup(option), option.help);
    return text;
}

std::string table_row(const std::string& left, const char* right, std::size_t width)
{
    return fmt::format("  {:<{}}  {}\n", left, width, right);
}

} // namespace zncctl
