// The work is done by a program of its own, which alone is linked with what reads archives of any
// kind.
#include "commands.hpp"
#include "front/files.hpp"
#include "front/output.hpp"

#include "zarnel/process_list.h"

#include <array>
#include <filesystem>
#include <fmt/format.h>
#include <system_error>
#include <unistd.h>

namespace zncctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kProgram = "zncctl-import";

// Beside this program where it is built, below the same prefix where it is installed.
fs::path find_program()
{
    std::array<char, 4096> path{};
    if (znProgramPath(path.data(), path.size()) != OK)
        throw std::system_error(errno, std::generic_category());
    const fs::path here = fs::path(path.data()).parent_path();
    const fs::path built = here / kProgram;
    return fs::exists(built) ? built : here.parent_path() / ZNC_LIBEXEC / kProgram;
}

std::vector<std::string> words_of(const Arguments& args)
{
    std::vector<std::string> words = {kProgram};
    for (const Command& command : commands()) {
        if (command.run != cmd_import)
            continue;
        for (const Option& option : command.options)
            if (args.has(option.name))
                words.push_back(option.value == nullptr
                                    ? fmt::format("--{}", option.name)
                                    : fmt::format("--{}={}", option.name, args.value(option.name)));
    }
    words.emplace_back("--");
    words.insert(words.end(), args.all_operands().begin(), args.all_operands().end());
    return words;
}

} // namespace

int cmd_import(const Arguments& args)
{
    const std::string program = find_program();
    std::vector<std::string> words = words_of(args);
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    ::execv(program.c_str(), argv.data());
    const bool missing = errno == ENOENT;
    const int status = failure(program, error_text());
    if (missing)
        print_hint("it is in a package of its own, zncontainer-import");
    return status;
}

} // namespace zncctl
