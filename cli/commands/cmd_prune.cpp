// Deletes the containers whose program has ended.
#include "cli/containers/container.hpp"
#include "cli/containers/container_filter.hpp"
#include "cli/containers/listing.hpp"
#include "cli/images/bundle_area.hpp"
#include "commands.hpp"

#include <nlohmann/json.hpp>
#include <stdexcept>

namespace zncctl {
namespace {

bool is_wanted(const ContainerFilter& filter, const ListedContainer& one, const std::string& base)
{
    if (one.status != STATE_STOPPED)
        return false;
    const ContainerOrigin origin = origin_of(one.id, base);
    const int exit_code = one.record ? one.record->exit_code.value_or(0) : 0;
    return filter.matches({one.id, origin.notes.image, "exited", exit_code, &origin.labels});
}

} // namespace

int cmd_container_prune(const Arguments& args)
try {
    const ContainerFilter filter(args.values("filter"));
    const auto all = listed_containers();
    if (!all)
        return daemon_failure(errno, "");
    const std::string base = all->empty() ? "" : storage_base();
    std::vector<std::string> ids;
    for (const ListedContainer& one : *all)
        if (is_wanted(filter, one, base))
            ids.push_back(one.id);
    return for_each_id(ids, false, [](const std::string& id) {
        // It may have been deleted by another process.
        return delete_container(id, false) == OK || errno == ENODEV ? static_cast<int>(kExitOk)
                                                                    : daemon_failure(errno, id);
    });
} catch (const std::runtime_error& error) {
    return usage_failure(error.what());
}

} // namespace zncctl
