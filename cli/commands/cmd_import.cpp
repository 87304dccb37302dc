// Runs zncctl-import, a separate program, so that only that program is linked with the library that
// reads all kinds of archives.
#include "cli/images/helper_program.hpp"
#include "cli/images/image_adder.hpp"
#include "cli/images/image_source.hpp"
#include "cli/images/reference.hpp"
#include "commands.hpp"
#include "front/output.hpp"

#include <fmt/format.h>
#include <stdexcept>
#include <unistd.h>

namespace zncctl {
namespace {

constexpr const char* kProgram = "zncctl-import";

// The options as zncctl-import takes them.
std::vector<std::string> options_of(const Arguments& args)
{
    std::vector<std::string> words;
    for (const Command& command : commands()) {
        if (command.run != cmd_import)
            continue;
        for (const Option& option : command.options)
            if (args.has(option.name))
                words.push_back(option.value == nullptr
                                    ? fmt::format("--{}", option.name)
                                    : fmt::format("--{}={}", option.name, args.value(option.name)));
    }
    return words;
}

int exec_program(const Arguments& args)
{
    const std::string program = import_program();
    std::vector<std::string> words = options_of(args);
    words.insert(words.begin(), kProgram);
    words.emplace_back("--");
    words.insert(words.end(), args.all_operands().begin(), args.all_operands().end());
    ::execv(program.c_str(), argument_vector(words).data());
    return import_failure(errno);
}

// Imports into the store under this name.
int import_as(const Arguments& args, const Reference& name)
try {
    std::vector<std::string> options = options_of(args);
    std::erase_if(options, [](const std::string& option) { // add_converted() knows these
        return option == "--quiet" || option == "--split" || option == "--force" ||
               option == "--keep-user";
    });
    const ImportSource what = {args.operand(0), STDIN_FILENO, "", std::move(options)};
    const Added added = add_converted(what, {name.text()}, "");
    if (added.status != kExitOk)
        return added.status;
    return args.has("quiet") ? static_cast<int>(kExitOk) : print_result(added.id);
} catch (const std::runtime_error& error) {
    return failure(name.text(), error.what());
}

} // namespace

int cmd_import(const Arguments& args)
{
    const std::string target = args.operand(1, "");
    const bool layout = is_layout_path(target) || is_layout_below(target) || args.has("tag") ||
                        args.has("dry-run") || args.has("list");
    const auto name = layout ? std::nullopt : parse_reference(target, kLocalHost);
    // A text that is not a valid name is the path of a new layout.
    return name && name->digest.empty() ? import_as(args, *name) : exec_program(args);
}

} // namespace zncctl
