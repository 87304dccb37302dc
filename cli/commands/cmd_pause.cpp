// Suspends all processes of containers, and lets them continue.
#include "cli/containers/container.hpp"
#include "cli/containers/events.hpp"
#include "cli/containers/pause.hpp"
#include "commands.hpp"

namespace zncctl {
namespace {

int freeze(const std::string& id, bool frozen)
{
    const CONTAINER_STATUS status = status_of(id);
    if (status == STATE_UNKNOWN)
        return daemon_failure(errno, id);
    if (status != STATE_RUNNING)
        return failure(id, "it is not running", kExitWrongState);
    if (is_paused(id, status) == frozen)
        return failure(id, frozen ? "it is paused already" : "it is not paused", kExitWrongState);
    const nsid_t ns = namespace_of(id);
    if (ns >= 0 && znnsFreeze(ns, frozen ? TRUE : FALSE) == OK) {
        ContainerEvents(id).note(frozen ? kPauseEvent : kUnpauseEvent);
        return kExitOk;
    }
    if (errno == ENOTSUP)
        return failure(id, "it cannot be paused: this machine has no control groups for it");
    if (errno == ESRCH)
        return failure(id, "it has ended", kExitWrongState);
    return local_failure(errno, id);
}

int freeze_all(const Arguments& args, bool frozen)
{
    return for_each_id(args.all_operands(), args.has("quiet"),
                       [&](const std::string& id) { return freeze(id, frozen); });
}

} // namespace

int cmd_pause(const Arguments& args)
{
    return freeze_all(args, true);
}

int cmd_resume(const Arguments& args)
{
    return freeze_all(args, false);
}

} // namespace zncctl
