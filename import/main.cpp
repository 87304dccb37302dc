// zncctl-import - executed by `zncctl import` with the arguments that follow the command's name.
#include "front/import_command.hpp"
#include "front/parse.hpp"
#include "front/usage.hpp"
#include "import.hpp"

#include <clocale>
#include <cstdio>

namespace {

// If `problem` is empty, an error has been printed already.
int bad_usage(const zncctl::Command& command, std::string_view problem)
{
    if (!problem.empty())
        static_cast<void>(zncctl::usage_failure(problem));
    std::fputs(zncctl::usage_line(command).c_str(), stderr);
    return zncctl::kExitUsage;
}

int run(std::span<char* const> words)
{
    const zncctl::Command command = zncctl::import_command(nullptr);
    const zncctl::Parsed parsed = zncctl::parse(command, words);
    if (parsed.help)
        return zncctl::print_result(zncctl::help_text(command));
    if (!parsed.problem.empty())
        return bad_usage(command, parsed.problem);
    try {
        return zncimport::import_image(zncimport::read_options(parsed.args));
    } catch (const zncimport::Failure& failure) {
        if (failure.status() == zncctl::kExitUsage)
            return bad_usage(command, failure.what());
        return zncctl::failure(failure.object(), failure.what(), failure.status());
    }
}

} // namespace

int main(int argc, char** argv)
{
    // libarchive needs a UTF-8 locale to return names as UTF-8. Names that are not valid UTF-8 are
    // passed on byte by byte.
    std::setlocale(LC_CTYPE, "C.UTF-8"); // NOLINT: there is one thread yet
    try {
        return run(
            std::span<char* const>(argv, static_cast<std::size_t>(argc)).subspan(argc > 0 ? 1 : 0));
    } catch (const std::exception& e) {
        return zncctl::failure("", e.what());
    }
}
