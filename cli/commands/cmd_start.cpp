#include "cli/containers/container.hpp"
#include "cli/containers/foreground.hpp"
#include "cli/containers/monitor.hpp"
#include "commands.hpp"

namespace zncctl {
namespace {

int start_detached(const std::string& id, std::size_t log_max)
{
    const int error = start_with_monitor(id, log_max);
    if (error == 0)
        return kExitOk;
    if (error != S_zncLib_RTP_SPAWN_FAILED)
        return daemon_failure(error == -1 ? 0 : error, id);
    static_cast<void>(start_failure(error, id)); // the message names the program
    return kExitFailure;
}

} // namespace

int cmd_start(const Arguments& args)
{
    std::size_t log_max = 0;
    if (args.has("attach") && args.has("detach"))
        return usage_failure("--attach cannot be combined with --detach");
    if (args.has("attach") && args.operands() > 1)
        return usage_failure("--attach takes a single container");
    if (!log_limit(args, log_max))
        return kExitUsage;
    if (args.has("attach")) {
        const SignalQueue signals;
        return run_in_foreground(args.operand(0), signals, false);
    }
    return for_each_id(args.all_operands(), true,
                       [&](const std::string& id) { return start_detached(id, log_max); });
}

} // namespace zncctl
