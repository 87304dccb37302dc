#include "cli/containers/container.hpp"
#include "commands.hpp"

namespace zncctl {
namespace {

// The ids of all containers, or of those that have stopped. Nullopt with errno set.
std::optional<std::vector<std::string>> existing_ids(bool stopped)
{
    return stopped ? all_ids(STATE_STOPPED) : all_ids();
}

} // namespace

int cmd_delete(const Arguments& args)
{
    std::vector<std::string> ids = args.all_operands();
    const bool all = args.has("all");
    const bool stopped = args.has("all-stopped");
    if ((all || stopped) != ids.empty() || (all && stopped))
        return usage_failure("either ids, --all or --all-stopped must be given");
    if (ids.empty()) {
        const auto existing = existing_ids(stopped);
        if (!existing)
            return daemon_failure(errno, "");
        ids = *existing;
    }
    const bool force = args.has("force");
    return for_each_id(ids, true, [&](const std::string& id) {
        if (delete_container(id, force) == OK)
            return args.has("quiet") ? static_cast<int>(kExitOk) : print_result(printable(id));
        // With --force, a missing container is not an error.
        return force && errno == ENODEV ? static_cast<int>(kExitOk) : daemon_failure(errno, id);
    });
}

} // namespace zncctl
