// zncctl - containers and images from the command line.
#include "cli/commands/commands.hpp"
#include "front/output.hpp"
#include "front/parse.hpp"
#include "front/usage.hpp"

#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <zncontainer.h>

namespace {

using namespace zncctl;

// A file opened later must not become a standard stream. A stream that was closed stays useless:
// reading finds the end, writing fails.
void fill_standard_streams()
{
    znc::UniqueFd fd;
    do {
        static_cast<void>(fd.release());
        fd.reset(::open("/dev/null", O_RDONLY)); // NOLINT: 0 to 2 are for the container's process
    } while (fd && fd.get() <= STDERR_FILENO);
}

int bad_usage(std::string_view problem, const std::string& usage)
{
    const int status = usage_failure(problem);
    std::fputs(usage.c_str(), stderr);
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
        return bad_usage("unknown command '" + std::string(words[0]) + "'", usage_line());
    const Command& command = *found.command;
    const std::span<char* const> rest = words.subspan(found.words);
    if (first == "help" && !rest.empty())
        return bad_usage("too many arguments", usage_line());
    const Parsed parsed = parse(command, rest);
    if (first == "help" || parsed.help)
        return print_result(help_text(command));
    if (!parsed.problem.empty())
        return bad_usage(parsed.problem, usage_line(command));
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
