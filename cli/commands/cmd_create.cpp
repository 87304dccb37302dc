#include "cli/containers/container.hpp"
#include "commands.hpp"

int zncctl::cmd_create(const Arguments& args)
{
    if (args.has("bundle") && args.operands() > 1)
        return usage_failure("the bundle must be given only once");
    const char* bundle = args.operand(1, args.value("bundle", "."));
    return create_container(args.operand(0), bundle);
}
