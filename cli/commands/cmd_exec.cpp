// Starts another program in a running container and exits with its status.
#include "cli/containers/attach.hpp"
#include "cli/containers/container.hpp"
#include "cli/containers/exec.hpp"
#include "cli/containers/session.hpp"
#include "commands.hpp"
#include "front/output.hpp"

#include <fmt/format.h>

namespace zncctl {
namespace {

constexpr const char* kTerm = "xterm"; // every terminal database has it

// What is wrong with the options, or "".
std::string wrong_use(const Arguments& args)
{
    for (const char* option : {"tty", "interactive"})
        if (args.has("detach") && args.has(option))
            return fmt::format("--{} cannot be combined with --detach", option);
    if (!std::string_view(args.value("workdir", "/")).starts_with('/'))
        return "--workdir must be an absolute path";
    if (*args.value("user", "0") == '\0')
        return "--user must name a user";
    for (const std::string& variable : args.values("env"))
        if (variable.empty() || variable.starts_with('='))
            return fmt::format("'{}' does not name a variable", variable);
    return "";
}

// False after printing a message.
bool find_user(const Arguments& args, const RunningContainer& container, ExecProgram& wanted)
{
    if (!args.has("user"))
        return true;
    std::string error;
    if (lookup_user(container.root(), args.value("user"), wanted.user.emplace(), error))
        return true;
    static_cast<void>(failure(container.id(), error));
    return false;
}

void complete_environment(const Arguments& args, const RunningContainer& container,
                          ExecProgram& wanted)
{
    Environment& environment = wanted.environment;
    for (const std::string& variable : args.values("env"))
        environment.apply(variable);
    if (environment.value("HOME") == nullptr)
        environment.set("HOME", wanted.user ? wanted.user->home : container.home());
    if (args.has("tty") && environment.value("TERM") == nullptr)
        environment.set("TERM", kTerm);
}

// The terminal of the program, if it gets one.
std::optional<TerminalOptions> terminal_of(const Arguments& args, const RunningContainer& container,
                                           const ExecProgram& wanted, const DetachKeys& keys)
{
    if (!args.has("tty"))
        return std::nullopt;
    return TerminalOptions{container.ns(),
                           wanted.user ? wanted.user->uid : user_of_program(container.id()),
                           args.has("interactive") ? keys : DetachKeys()};
}

int start(Session& session, const RunningContainer& container, ExecProgram& wanted, bool hosted)
{
    if (hosted)
        return session.start_hosted([&](ProgramLink link, Pty terminal) {
            host_exec(container, wanted, std::move(link), std::move(terminal));
        });
    return session.start([&](Program& program, const ProgramStreams& streams) {
        return start_exec(container, wanted, program, streams);
    });
}

int run_attached(const RunningContainer& container, ExecProgram& wanted, const Arguments& args,
                 const DetachKeys& keys)
{
    const SignalQueue signals;
    const auto to_program = [](const Program& program, int signo) { program.signal(signo); };
    const auto to_group = [](const Program& program, int signo) { program.signal(signo, true); };
    Session session(signals, {to_program, to_group});
    const auto terminal = terminal_of(args, container, wanted, keys);
    if (!session.open(terminal, args.has("interactive")))
        return failure(container.id(), "the program's standard streams cannot be created",
                       kExitStartFailed);
    if (const int error = start(session, container, wanted, terminal && !terminal->keys.none());
        error != 0)
        return exec_failure(container, wanted, error);
    std::optional<int> status = session.wait();
    if (!status)
        status = session.leave();
    return status ? session.finish(container.id(), *status) : static_cast<int>(kExitOk);
}

} // namespace

int cmd_exec(const Arguments& args)
{
    if (const std::string problem = wrong_use(args); !problem.empty())
        return usage_failure(problem);
    if (args.has("tty") && args.has("interactive") && ::isatty(STDIN_FILENO) == 0)
        return failure("", "--tty with --interactive needs a terminal on standard input",
                       kExitStartFailed);
    const auto keys = read_detach_keys(args);
    if (!keys)
        return kExitUsage;
    int status = kExitOk;
    const auto container = RunningContainer::find(args.operand(0), status);
    if (!container)
        return status;
    const std::vector<std::string>& words = args.all_operands();
    ExecProgram wanted = {{words.begin() + 1, words.end()},
                          Environment(container->environment()),
                          args.value("workdir", container->directory().c_str()),
                          std::nullopt};
    if (!find_user(args, *container, wanted))
        return kExitStartFailed;
    complete_environment(args, *container, wanted);
    if (!args.has("detach"))
        return run_attached(*container, wanted, args, *keys);
    const int error = start_exec_detached(*container, wanted);
    return error == 0 ? static_cast<int>(kExitOk) : exec_failure(*container, wanted, error);
}

} // namespace zncctl
