#include "cli/containers/container.hpp"
#include "commands.hpp"

int zncctl::cmd_state(const Arguments& args)
{
    const Json state = state_of(args.operand(0));
    if (state == nullptr)
        return daemon_failure(errno, args.operand(0));
    return print_json(pretty(state.get()));
}
