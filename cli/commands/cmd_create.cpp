#include "cli/containers/container.hpp"
#include "cli/containers/image_bundle.hpp"
#include "commands.hpp"

int zncctl::cmd_create(const Arguments& args)
{
    if (args.has("bundle") && args.operands() > 1)
        return usage_failure("the bundle must be given only once");
    Network network;
    if (const int status = read_network(args, false, kExitFailure, network); status != kExitOk)
        return status;
    const char* source = args.operand(1, args.value("bundle", "."));
    NewBundle bundle;
    if (!bundle_of_bundle(source, args.operand(0), network, bundle))
        return kExitFailure;
    return create_container(args.operand(0), bundle, network);
}
