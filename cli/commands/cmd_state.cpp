#include "cli/containers/container.hpp"
#include "commands.hpp"

#include <nlohmann/json.hpp>

int zncctl::cmd_state(const Arguments& args)
{
    const std::optional<Json> state = state_of(args.operand(0));
    if (!state)
        return daemon_failure(errno, args.operand(0));
    return print_json(pretty(*state));
}
