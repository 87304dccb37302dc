// Creates a container from a bundle or an image.
#include "cli/containers/cid_file.hpp"
#include "cli/containers/container.hpp"
#include "cli/containers/image_bundle.hpp"
#include "commands.hpp"

#include <optional>

namespace zncctl {
namespace {

// The operands: ID [BUNDLE], or with --name IMAGE [COMMAND...].
struct Operands {
    std::string image; // "": from a bundle
    std::string bundle;
    std::optional<std::string> id; // not set with --name
    std::vector<std::string> command;
};

Operands read_operands(const Arguments& args)
{
    const std::vector<std::string>& words = args.all_operands();
    if (args.has("name") && args.has("bundle"))
        return {"", args.value("bundle"), {}, words};
    if (args.has("name")) {
        if (words.empty())
            throw BadOption("an image must be given");
        return {words[0], "", {}, {words.begin() + 1, words.end()}};
    }
    if (words.empty())
        throw BadOption("too few arguments");
    if (words.size() > (args.has("bundle") ? 1U : 2U))
        throw BadOption(args.has("bundle") ? "the bundle must be given only once"
                                           : "--name must give the id of a container that is made "
                                             "from an image");
    return {"", args.operand(1, args.value("bundle", ".")), words[0], {}};
}

// Without --name, operands are an id and a bundle. Prints a hint if an image was probably meant.
void hint_at_name(const Operands& operands)
{
    if (operands.id && ::access((operands.bundle + "/config.json").c_str(), F_OK) != 0)
        print_hint("to create a container from an image, give its id with --name");
}

int create(const Arguments& args, const Operands& operands, NewContainer& container)
{
    CidFile cid_file(args);
    NewBundle bundle;
    if (!bundle_of_container(args, operands.bundle, container, bundle))
        return kExitFailure;
    if (const int status = create_container(container.id, bundle, container.network);
        status != kExitOk) {
        hint_at_name(operands);
        return status;
    }
    if (!cid_file.write(container.id))
        return local_failure(errno, args.value("cidfile"));
    return operands.image.empty() ? static_cast<int>(kExitOk) : print_result(container.id);
}

} // namespace

int cmd_create(const Arguments& args)
try {
    const Operands operands = read_operands(args);
    NewContainer container;
    container.id = operands.id ? *operands.id : id_of_new_container(args);
    container.image = operands.image;
    container.started_later = true;
    if (const int status =
            read_container_options(args, operands.command, kExitFailure, container.options);
        status != kExitOk)
        return status;
    if (const int status =
            read_network(args, !operands.image.empty(), kExitFailure, container.network);
        status != kExitOk)
        return status;
    return create(args, operands, container);
} catch (const BadOption& bad) {
    return usage_failure(bad.what());
}

} // namespace zncctl
