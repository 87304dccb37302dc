// Deletes the containers whose program has ended.
#include "cli/containers/container.hpp"
#include "cli/containers/container_filter.hpp"
#include "cli/containers/listing.hpp"
#include "commands.hpp"

#include <stdexcept>

namespace zncctl {
namespace {

bool is_wanted(const ContainerFilter& filter, const ListedContainer& one,
               const ContainerOrigin& origin)
{
    const int exit_code = one.record ? one.record->exit_code.value_or(0) : 0;
    return filter.matches({one.id, origin.notes.image, "exited", exit_code, &origin.labels});
}

} // namespace

int cmd_container_prune(const Arguments& args)
try {
    const ContainerFilter filter(args.values("filter"));
    auto ended = listed_containers();
    if (!ended)
        return daemon_failure(errno, "");
    std::erase_if(*ended, [](const ListedContainer& one) { return one.status != STATE_STOPPED; });
    const std::vector<ContainerOrigin> origins = origins_of(ids_of(*ended));
    std::vector<std::string> ids;
    for (std::size_t index = 0; index < ended->size(); ++index)
        if (is_wanted(filter, (*ended)[index], origins[index]))
            ids.push_back((*ended)[index].id);
    return for_each_id(ids, false, [](const std::string& id) {
        // It may have been deleted by another process.
        return delete_container(id, false) == OK || errno == ENODEV ? static_cast<int>(kExitOk)
                                                                    : daemon_failure(errno, id);
    });
} catch (const std::runtime_error& error) {
    return usage_failure(error.what());
}

} // namespace zncctl
