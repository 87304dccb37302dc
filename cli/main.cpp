// zncctl - containers and images from the command line.
#include "cli/commands/commands.hpp"
#include "cli/containers/id_prefix.hpp"
#include "front/output.hpp"
#include "front/parse.hpp"
#include "front/usage.hpp"
#include "front/words.hpp"

#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <fmt/format.h>
#include <string>
#include <vector>
#include <zncontainer.h>

namespace {

using namespace zncctl;

// Opens the null device, read-only, in place of closed standard streams, so that no file opened
// later gets their numbers. Reading from such a stream returns end of file, and writing fails.
void fill_standard_streams()
{
    znc::UniqueFd fd;
    do {
        static_cast<void>(fd.release());
        fd.reset(::open("/dev/null", O_RDONLY)); // NOLINT: 0 to 2 are for the container's process
    } while (fd && fd.get() <= STDERR_FILENO);
}

int bad_usage(std::string_view problem, const std::string& usage, std::string_view hint = "")
{
    const int status = usage_failure(problem);
    if (!hint.empty())
        print_hint(hint);
    std::fputs(usage.c_str(), stderr);
    return status;
}

// Prints which command may have been meant.
void suggest_command(std::span<char* const> words)
{
    std::string typed = words[0];
    std::vector<std::string> names = {"help"};
    for (const Command& command : commands()) {
        names.emplace_back(command.name);
        for (std::string& alias : split_words(command.aliases))
            names.push_back(std::move(alias));
        if (words.size() > 1 && std::string_view(command.name).starts_with(typed + " "))
            typed = fmt::format("{} {}", words[0], words[1]);
    }
    if (const std::string meant = closest_word(typed, names); !meant.empty())
        print_hint(fmt::format("did you mean '{}'?", meant));
}

// The words that follow `first` in names of commands, as a list; empty if there are none.
std::string second_words(std::string_view first)
{
    std::string list;
    for (const Command& command : commands()) {
        const std::string_view name = command.name;
        if (name.starts_with(first) && name.substr(first.size()).starts_with(' '))
            list += fmt::format("{}'{}'", list.empty() ? "" : ", ", name.substr(first.size() + 1));
    }
    return list;
}

int unknown_command(std::span<char* const> words)
{
    if (const std::string_view reason = reason_for_absence(words); !reason.empty())
        return usage_failure(fmt::format("there is no command '{}': {}", words[0], reason));
    const std::string following = second_words(words[0]);
    if (words.size() == 1 && !following.empty())
        return bad_usage(fmt::format("'{}' needs another word: {}", words[0], following),
                         usage_line());
    const int status = usage_failure(
        following.empty() ? fmt::format("unknown command '{}'", words[0])
                          : fmt::format("unknown command '{} {}'", words[0], words[1]));
    suggest_command(words);
    std::fputs(usage_line().c_str(), stderr);
    return status;
}

int run(std::span<char* const> words)
{
    if (words.empty())
        return bad_usage("no command given", usage_line());
    const std::string_view first = words[0];
    const bool version = first == "--version";
    const bool help = first == "--help" || first == "-h";
    if ((version || help) && words.size() > 1)
        return bad_usage("too many arguments", usage_line());
    if (version)
        return print_result("zncctl " ZNC_VERSION);
    if (help || (first == "help" && words.size() == 1))
        return print_result(help_text());
    if (first == "help")
        words = words.subspan(1);
    const Found found = find_command(words);
    if (found.command == nullptr)
        return unknown_command(words);
    const Command& command = *found.command;
    const std::span<char* const> rest = words.subspan(found.words);
    if (first == "help" && !rest.empty())
        return bad_usage("too many arguments", usage_line());
    Parsed parsed = parse(command, rest);
    if (first == "help" || parsed.help)
        return print_result(help_text(command));
    if (!parsed.problem.empty())
        return bad_usage(parsed.problem, usage_line(command), parsed.hint);
    if (const int several = complete_ids(command, parsed.args); several != kExitOk)
        return several;
    const int status = command.run(parsed.args);
    if (status == kExitUsage)
        std::fputs(usage_line(command).c_str(), stderr);
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    fill_standard_streams();
    try {
        return run(
            std::span<char* const>(argv, static_cast<std::size_t>(argc)).subspan(argc > 0 ? 1 : 0));
    } catch (const std::exception& e) {
        return failure("", e.what());
    }
}
