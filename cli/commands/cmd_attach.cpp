#include "cli/containers/container.hpp"
#include "cli/containers/follow.hpp"
#include "cli/containers/foreground.hpp"
#include "commands.hpp"

#include <csignal>

namespace zncctl {
namespace {

void pass_signals(const SignalQueue& signals, SignalRelay& relay)
{
    while (const auto signo = signals.next()) {
        if (*signo != SIGCHLD && *signo != SIGWINCH && *signo != SIGPIPE)
            relay.forward(*signo);
        if (*signo == SIGTSTP)
            ::raise(SIGSTOP);
    }
}

int attach(const std::string& id, bool relayed)
{
    znc::UniqueFd dir;
    if (open_log_of(id, dir) != kExitOk)
        return kExitStartFailed;
    LogReader reader(dir.get(), true);
    const RecordEnd end(dir.get());
    if (!record_is_kept(dir.get()))
        return failure(id, "it has ended; 'zncctl wait' prints its exit code", kExitStartFailed);
    bool printed = false;
    const auto read = [&reader] { return reader.read(); };
    if (relayed) {
        const SignalQueue signals;
        SignalRelay relay(id);
        printed = follow(dir.get(), read, [&] { pass_signals(signals, relay); });
    } else {
        printed = follow(dir.get(), read, nullptr);
    }
    if (!printed) {
        static_cast<void>(local_failure(errno, "standard output"));
        return kExitStartFailed;
    }
    const auto record = read_record(dir.get()); // gone with --rm
    if (const auto code = record && record->exit_code ? record->exit_code : end.exit_code())
        return *code;
    return failure(id, "its exit code is lost: its monitor was killed", kExitStartFailed);
}

} // namespace

int cmd_attach(const Arguments& args)
{
    return attach(args.operand(0), !args.has("no-signals"));
}

} // namespace zncctl
