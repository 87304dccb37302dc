#include "cli/containers/container.hpp"
#include "cli/containers/pause.hpp"
#include "commands.hpp"

#include <nlohmann/json.hpp>

int zncctl::cmd_state(const Arguments& args)
{
    const char* id = args.operand(0);
    std::optional<Json> state = state_of(id);
    if (!state)
        return daemon_failure(errno, id);
    if (integer(member(*state, "status")) == STATE_RUNNING && is_paused(id, STATE_RUNNING))
        (*state)["paused"] = true;
    return print_json(pretty(*state));
}
