// Generates the completion scripts from the table of commands. The scripts call zncctl for the ids
// of containers.
#include "commands.hpp"

#include "front/words.hpp"

#include <fmt/format.h>
#include <set>

namespace zncctl {
namespace {

constexpr const char* kSignals = "ABRT ALRM CONT HUP INT KILL QUIT STOP TERM TSTP USR1 USR2";

// The words that may follow "zncctl": the first words of names, and aliases.
std::vector<std::string> first_words()
{
    std::set<std::string> words = {"help", "--help", "--version"};
    for (const Command& command : commands()) {
        words.insert(split_words(command.name)[0]);
        for (const std::string& alias : split_words(command.aliases))
            words.insert(alias);
    }
    return {words.begin(), words.end()};
}

std::string joined(const std::vector<std::string>& words)
{
    return fmt::format("{}", fmt::join(words, " "));
}

std::vector<std::string> option_words(const Command& command)
{
    std::vector<std::string> words = {"--help"};
    for (const Option& option : command.options) {
        if (option.letter != 0)
            words.push_back(fmt::format("-{}", option.letter));
        words.push_back(fmt::format("--{}", option.name));
    }
    return words;
}

// A pattern for "case" that matches the option's names: "-s | --signal".
std::string names(const Option& option)
{
    if (option.letter == 0)
        return fmt::format("--{}", option.name);
    return fmt::format("-{} | --{}", option.letter, option.name);
}

// The second words of the command names that begin with `first`.
std::string second_words(std::string_view first)
{
    std::vector<std::string> words;
    for (const Command& command : commands())
        if (const auto parts = split_words(command.name); parts.size() == 2 && parts[0] == first)
            words.push_back(parts[1]);
    return joined(words);
}

std::set<std::string> groups()
{
    std::set<std::string> result;
    for (const Command& command : commands())
        if (const auto parts = split_words(command.name); parts.size() == 2)
            result.insert(parts[0]);
    return result;
}

// ------------------------------------------------------------------ bash

std::string bash_words(Word word, const char* choices)
{
    switch (word) {
    case Word::kContainer:
        return "mapfile -t COMPREPLY < <(compgen -W \"$(zncctl list -q 2>/dev/null)\" -- \"$cur\")";
    case Word::kImage: // a name in the store, or a layout
        return "mapfile -t COMPREPLY < "
               "<(compgen -d -W \"$(zncctl image ls -q 2>/dev/null)\" -- \"$cur\")";
    case Word::kSignal:
        return fmt::format("mapfile -t COMPREPLY < <(compgen -W '{}' -- \"$cur\")", kSignals);
    case Word::kChoice:
        return fmt::format("mapfile -t COMPREPLY < <(compgen -W '{}' -- \"$cur\")", choices);
    case Word::kDirectory:
        return "mapfile -t COMPREPLY < <(compgen -d -- \"$cur\")";
    case Word::kFile:
        return "mapfile -t COMPREPLY < <(compgen -f -- \"$cur\")";
    case Word::kAny:
        break;
    }
    return "COMPREPLY=()";
}

std::string bash_command(const Command& command)
{
    std::string pattern = fmt::format("'{}'", command.name);
    for (const std::string& alias : split_words(command.aliases))
        pattern += fmt::format(" | '{}'", alias);
    std::string text = fmt::format("    {})\n", pattern);
    std::string values;
    for (const Option& option : command.options)
        if (option.value != nullptr)
            values +=
                fmt::format("        {})\n            {}\n            return\n            ;;\n",
                            names(option), bash_words(option.word, option.choices));
    if (!values.empty())
        text += fmt::format("        case $prev in\n{}        esac\n", values);
    text += fmt::format("        if [[ $cur == -* ]]; then\n"
                        "            mapfile -t COMPREPLY < <(compgen -W '{}' -- \"$cur\")\n"
                        "        else\n            {}\n        fi\n        ;;\n",
                        joined(option_words(command)), bash_words(command.word, command.choices));
    return text;
}

// ------------------------------------------------------------------ zsh

// Escapes text for single quotes and for the syntax of _arguments.
std::string zsh_text(std::string_view text)
{
    std::string result;
    for (const char c : text) {
        if (c == ':' || c == '[' || c == ']')
            result += '\\';
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return result;
}

std::string zsh_words(Word word, const char* choices)
{
    switch (word) {
    case Word::kContainer:
        return "_zncctl_ids";
    case Word::kImage:
        return "_zncctl_images";
    case Word::kSignal:
        return fmt::format("({})", kSignals);
    case Word::kChoice:
        return fmt::format("({})", choices);
    case Word::kDirectory:
        return "_files -/";
    case Word::kFile:
        return "_files";
    case Word::kAny:
        break;
    }
    return " ";
}

void zsh_option(std::string& text, const std::string& name, const Option& option)
{
    text += fmt::format(" \\\n            '{}[{}]", name, zsh_text(option.help));
    if (option.value != nullptr)
        text +=
            fmt::format(":{}:{}", zsh_text(option.value), zsh_words(option.word, option.choices));
    text += "'";
}

std::string zsh_command(const Command& command)
{
    std::string pattern = fmt::format("'{}'", command.name);
    for (const std::string& alias : split_words(command.aliases))
        pattern += fmt::format("|'{}'", alias);
    std::string text = fmt::format("    {})\n        _arguments -s '--help[print help]'", pattern);
    for (const Option& option : command.options) {
        if (option.letter != 0)
            zsh_option(text, fmt::format("-{}", option.letter), option);
        zsh_option(text, fmt::format("--{}", option.name), option);
    }
    if (command.max_operands != 0)
        text += fmt::format(" \\\n            '*:{}:{}'", zsh_text(command.arguments),
                            zsh_words(command.word, command.choices));
    return text + "\n        ;;\n";
}

// ------------------------------------------------------------------ fish

std::string fish_quoted(std::string_view text)
{
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' || c == '\\' ? fmt::format("\\{}", c) : std::string(1, c);
    return result + "'";
}

std::string fish_words(Word word, const char* choices)
{
    switch (word) {
    case Word::kContainer:
        return " -a '(zncctl list -q 2>/dev/null)'";
    case Word::kImage:
        return " -a '(zncctl image ls -q 2>/dev/null; __fish_complete_directories)'";
    case Word::kSignal:
        return fmt::format(" -a '{}'", kSignals);
    case Word::kChoice:
        return fmt::format(" -a '{}'", choices);
    case Word::kDirectory:
        return " -a '(__fish_complete_directories)'";
    case Word::kFile:
        return " -F";
    case Word::kAny:
        break;
    }
    return "";
}

// A condition that is true if the words typed so far name the command.
std::string fish_condition(const Command& command)
{
    const auto parts = split_words(command.name);
    if (parts.size() == 2)
        return fmt::format("'__fish_seen_subcommand_from {}; and __fish_seen_subcommand_from {}'",
                           parts[0], parts[1]);
    std::string text = parts[0];
    for (const std::string& alias : split_words(command.aliases))
        text += " " + alias;
    return fmt::format("'__fish_seen_subcommand_from {}'", text);
}

std::string fish_command(const Command& command)
{
    const auto parts = split_words(command.name);
    std::string text;
    if (parts.size() == 1)
        text += fmt::format("complete -c zncctl -n __fish_use_subcommand -a {} -d {}\n", parts[0],
                            fish_quoted(command.help));
    else
        text += fmt::format("complete -c zncctl -n '__fish_seen_subcommand_from {0}; and not "
                            "__fish_seen_subcommand_from {2}' -a {1} -d {3}\n",
                            parts[0], parts[1], second_words(parts[0]), fish_quoted(command.help));
    const std::string condition = fish_condition(command);
    if (command.max_operands != 0)
        text += fmt::format("complete -c zncctl -n {}{}\n", condition,
                            fish_words(command.word, command.choices));
    for (const Option& option : command.options) {
        text += fmt::format("complete -c zncctl -n {}", condition);
        if (option.letter != 0)
            text += fmt::format(" -s {}", option.letter);
        text += fmt::format(" -l {} -d {}", option.name, fish_quoted(option.help));
        if (option.value != nullptr)
            text += " -r" + fish_words(option.word, option.choices);
        text += "\n";
    }
    return text;
}

} // namespace

std::string bash_completion()
{
    std::string text = fmt::format(
        "# bash completion for zncctl, made by 'zncctl completion bash'\n"
        "_zncctl() {{\n"
        "    local cur=${{COMP_WORDS[COMP_CWORD]}} prev=${{COMP_WORDS[COMP_CWORD - 1]}}\n"
        "    local command=${{COMP_WORDS[1]}}\n"
        "    if [[ $COMP_CWORD -eq 1 ]]; then\n"
        "        mapfile -t COMPREPLY < <(compgen -W '{}' -- \"$cur\")\n"
        "        return\n"
        "    fi\n"
        "    case $command in\n",
        joined(first_words()));
    for (const std::string& group : groups())
        text += fmt::format("    {0})\n"
                            "        if [[ $COMP_CWORD -eq 2 ]]; then\n"
                            "            mapfile -t COMPREPLY < <(compgen -W '{1}' -- \"$cur\")\n"
                            "            return\n"
                            "        fi\n"
                            "        command+=\" ${{COMP_WORDS[2]}}\"\n"
                            "        ;;\n",
                            group, second_words(group));
    text += "    esac\n    case $command in\n";
    for (const Command& command : commands())
        text += bash_command(command);
    return text + "    esac\n}\ncomplete -F _zncctl zncctl\n";
}

std::string zsh_completion()
{
    std::string text = fmt::format("#compdef zncctl\n"
                                   "# zsh completion for zncctl, made by 'zncctl completion zsh'\n"
                                   "_zncctl_ids() {{\n"
                                   "    local -a ids\n"
                                   "    ids=(${{(f)\"$(zncctl list -q 2>/dev/null)\"}})\n"
                                   "    compadd -a ids\n"
                                   "}}\n"
                                   "_zncctl_images() {{\n"
                                   "    local -a names\n"
                                   "    names=(${{(f)\"$(zncctl image ls -q 2>/dev/null)\"}})\n"
                                   "    compadd -a names\n"
                                   "    _files -/\n"
                                   "}}\n"
                                   "_zncctl() {{\n"
                                   "    local name=${{words[2]}}\n"
                                   "    if (( CURRENT == 2 )); then\n"
                                   "        compadd -- {}\n"
                                   "        return\n"
                                   "    fi\n"
                                   "    case $name in\n",
                                   joined(first_words()));
    for (const std::string& group : groups())
        text += fmt::format("    {0})\n"
                            "        if (( CURRENT == 3 )); then\n"
                            "            compadd -- {1}\n"
                            "            return\n"
                            "        fi\n"
                            "        name+=\" ${{words[3]}}\"\n"
                            "        shift words\n"
                            "        (( CURRENT-- ))\n"
                            "        ;;\n",
                            group, second_words(group));
    text += "    esac\n    shift words\n    (( CURRENT-- ))\n    case $name in\n";
    for (const Command& command : commands())
        text += zsh_command(command);
    return text + "    esac\n}\nif [[ $funcstack[1] == _zncctl ]]; then\n    _zncctl \"$@\"\nelse\n"
                  "    compdef _zncctl zncctl\nfi\n";
}

std::string fish_completion()
{
    std::string text = "# fish completion for zncctl, made by 'zncctl completion fish'\n"
                       "complete -c zncctl -f\n";
    for (const std::string& group : groups())
        text += fmt::format("complete -c zncctl -n __fish_use_subcommand -a {}\n", group);
    for (const Command& command : commands())
        text += fish_command(command);
    return text;
}

} // namespace zncctl
