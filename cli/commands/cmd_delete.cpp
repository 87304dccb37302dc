#include "cli/containers/container.hpp"
#include "commands.hpp"

int zncctl::cmd_delete(const Arguments& args)
{
    std::vector<std::string> ids = args.all_operands();
    if (args.has("all-stopped") != ids.empty())
        return usage_failure("either ids or --all-stopped must be given");
    if (args.has("all-stopped")) {
        const auto stopped = ids_in_state(STATE_STOPPED);
        if (!stopped)
            return daemon_failure(errno, "");
        ids = *stopped;
    }
    return for_each_id(ids, args.has("quiet"), [&](const std::string& id) {
        return delete_container(id, args.has("force")) == OK ? static_cast<int>(kExitOk)
                                                             : daemon_failure(errno, id);
    });
}
