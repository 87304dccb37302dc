#include "cli/containers/attach.hpp"
#include "cli/containers/container.hpp"
#include "cli/containers/container_notes.hpp"
#include "cli/containers/foreground.hpp"
#include "cli/containers/image_bundle.hpp"
#include "cli/containers/monitor.hpp"
#include "commands.hpp"

namespace zncctl {
namespace {

int start_detached(const std::string& id, std::size_t log_max)
{
    const ContainerNotes notes = read_notes(own_bundle(id));
    const int error =
        start_with_monitor(id, {log_max, notes.tty, notes.interactive, notes.remove, false});
    if (error == 0)
        return kExitOk;
    if (error != S_zncLib_RTP_SPAWN_FAILED) {
        const int status = daemon_failure(error == -1 ? 0 : error, id);
        print_ended_hint(error, id);
        return status;
    }
    static_cast<void>(start_failure(error, id)); // the message names the program
    return kExitFailure;
}

int start_attached(const std::string& id, std::size_t log_max, const DetachKeys& keys)
{
    const ContainerNotes notes = read_notes(own_bundle(id));
    // A container made from a bundle of the user, without options, always gets standard input.
    const bool input = notes.interactive || notes.created == 0;
    if (notes.tty && input && ::isatty(STDIN_FILENO) == 0)
        return failure(id,
                       "its program was created with --tty and --interactive, which needs a "
                       "terminal on standard input",
                       kExitStartFailed);
    ForegroundEnd end;
    const SignalQueue signals;
    const int status =
        run_in_foreground(id, signals, {notes.tty, input, notes.remove, log_max, false, keys}, end);
    if (end.started && !end.left && notes.remove && delete_container(id, true) != OK)
        static_cast<void>(daemon_failure(errno, id));
    return status;
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
    const auto keys = read_detach_keys(args);
    if (!keys)
        return kExitUsage;
    if (args.has("attach"))
        return start_attached(args.operand(0), log_max, *keys);
    return for_each_id(args.all_operands(), true,
                       [&](const std::string& id) { return start_detached(id, log_max); });
}

} // namespace zncctl
