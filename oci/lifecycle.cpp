// lifecycle.cpp - the commands create, start, run, state, list, kill and delete.
#include "container.hpp"
#include "front/files.hpp"
#include "front/output.hpp"
#include "log.hpp"
#include "signals.hpp"

#include <csignal>
#include <cstdio>
#include <optional>
#include <poll.h>
#include <regex>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>

namespace zncrun {
namespace {

// Returns the exit status of the program in the form of a shell's, or nothing if it has not ended.
std::optional<int> exit_status(pid_t pid)
{
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) != pid)
        return std::nullopt;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void forward_one(int signals, const ZN_ENGINE_PROCESS& process, const Console& console)
{
    signalfd_siginfo info = {};
    if (::read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info) &&
        info.ssi_signo != SIGCHLD && (info.ssi_signo != SIGWINCH || !console.copy_size()))
        znEngineProcessSignal(&process, static_cast<int>(info.ssi_signo));
}

} // namespace

sigset_t block_forwarded_signals()
{
    sigset_t signals;
    sigfillset(&signals);
    for (const int own : {SIGKILL, SIGSTOP, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP,
                          SIGSYS, SIGTTIN, SIGTTOU, SIGTSTP, SIGPIPE})
        sigdelset(&signals, own);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

int wait_in_foreground(const ZN_ENGINE_PROCESS& process, const sigset_t& signals, Console& console,
                       ReadySocket* ready)
{
    constexpr int kForegroundMs = 100; // no event says that this process is in the foreground again
    const znc::UniqueFd arrived(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!arrived)
        throw Failure("signals: " + zncctl::error_text());
    console.connect();
    for (;;) {
        // It may have ended before its end was waited for.
        if (const auto status = exit_status(process.pid)) {
            console.finish();
            if (ready != nullptr)
                ready->receive(::getpid());
            return *status;
        }
        std::vector<pollfd> events = {{arrived.get(), POLLIN, 0},
                                      {ready != nullptr ? ready->get() : -1, POLLIN, 0}};
        console.add_wanted(events);
        if (::poll(events.data(), events.size(), console.in_background() ? kForegroundMs : -1) < 0)
            continue;
        if (events[0].revents != 0)
            forward_one(arrived.get(), process, console);
        if (events[1].revents != 0)
            ready->receive(::getpid()); // this process ends with the program's exit status
        console.go(events.data() + 2);
    }
}

int run_create(const Context& context, const Arguments& args)
{
    std::optional<Console> console;
    create_container(context, args, console, Console::Place::kDetached);
    return 0;
}

int run_start(const Context& context, const Arguments& args)
{
    Started started = start_container(context, args.operand(0));
    started.ready.wait(started.process);
    return 0;
}

int run_run(const Context& context, const Arguments& args)
{
    sigset_t signals;
    const bool isDetached = args.has("detach");
    std::optional<Console> console;
    const Container container =
        create_container(context, args, console,
                         isDetached ? Console::Place::kDetached : Console::Place::kForeground);
    Started started;
    try {
        started = start_container(context, container.id, isDetached ? nullptr : &signals);
    } catch (const Failure&) {
        StateDirectory directory = StateDirectory::open(context, container.id, Lock::kExclusive);
        remove_container(context, directory);
        throw;
    }
    if (isDetached) {
        started.ready.wait(started.process);
        return 0;
    }
    const int status = wait_in_foreground(started.process, signals, *console, &started.ready);
    StateDirectory directory = StateDirectory::find(context, container.id, Lock::kExclusive);
    if (directory && !args.has("keep"))
        remove_container(context, directory);
    return status;
}

int run_state(const Context& context, const Arguments& args)
{
    const StateDirectory directory = StateDirectory::open(context, args.operand(0), Lock::kNone);
    const Container container = directory.read();
    print(zncctl::pretty(state_document(container, directory.status(container))));
    return 0;
}

int run_list(const Context& context, const Arguments& args)
{
    Json all = Json::array();
    std::string table =
        fmt::format("{:<24} {:>8} {:<10} {:<28} {}\n", "ID", "PID", "STATUS", "BUNDLE", "CREATED");
    for (const std::string& id : state_ids(context)) {
        const StateDirectory directory = StateDirectory::find(context, id, Lock::kNone);
        if (!directory || !directory.has_state())
            continue;
        try {
            const Container container = directory.read();
            const Json state = state_document(container, directory.status(container));
            table += fmt::format("{:<24} {:>8} {:<10} {:<28} {}\n", id, state["pid"].get<int>(),
                                 state["status"].get<std::string>(), container.bundle,
                                 container.created);
            all.push_back(state);
        } catch (const Failure& failure) { // list the others even if one is damaged
            log_line(context, "warning", failure.what());
        }
    }
    std::string ids;
    for (const Json& one : all)
        ids += one["id"].get<std::string>() + "\n";
    const bool isJson = std::string(args.value("format", "table")) == "json";
    print(args.has("quiet") ? ids : isJson ? zncctl::compact(all) + "\n" : table);
    return 0;
}

int run_kill(const Context& context, const Arguments& args)
{
    const int signal = signal_number(args.operand(1, "TERM"));
    if (signal < 0)
        throw Failure(fmt::format("unknown signal {:?}", args.operand(1)));
    const StateDirectory directory = StateDirectory::open(context, args.operand(0), Lock::kNone);
    const Container container = directory.read();
    if (args.has("all") && container.group.empty())
        throw Failure(fmt::format("--all: container {:?} has no control group", container.id));
    if (args.has("all")) {
        // Also after the first process has ended: with a shared PID namespace other processes may
        // still run.
        if (znEngineGroupSignal(container.group.c_str(), signal) != OK && errno != ENOENT)
            throw Failure(fmt::format("cgroup {}: {}", container.group, zncctl::error_text()));
    } else if (znEngineProcessSignal(&container.process, signal) != OK) {
        throw Failure(errno == ESRCH ? "container not running" : zncctl::error_text());
    }
    BOOL frozen = FALSE;
    if (signal == SIGKILL && znEngineGroupFrozen(container.group.c_str(), &frozen) == OK &&
        frozen != FALSE)
        znEngineGroupFreeze(container.group.c_str(), FALSE); // on v1, frozen processes do not die
    return 0;
}

namespace {

// Kills without taking the lock: the process that holds it may be waiting for a hook that does not
// end.
void kill_unlocked(const Context& context, const std::string& id)
{
    const StateDirectory directory = StateDirectory::find(context, id, Lock::kNone);
    if (!directory || !directory.has_state())
        return;
    try {
        const Container container = directory.read();
        znEngineProcessSignal(&container.process, SIGKILL);
    } catch (const Failure&) { // a damaged state: the process is not known
    }
}

void delete_one(const Context& context, const std::string& id, bool force)
{
    if (force)
        kill_unlocked(context, id);
    StateDirectory directory = force ? StateDirectory::find(context, id, Lock::kBounded)
                                     : StateDirectory::open(context, id, Lock::kExclusive);
    if (!directory)
        return;
    if (!force) {
        const Container container = directory.read();
        const Status status = directory.status(container);
        if (status == Status::kRunning || status == Status::kPaused)
            throw Failure(fmt::format("cannot delete container {} that is not stopped: {}",
                                      container.id, status_name(status)));
    }
    try {
        remove_container(context, directory);
    } catch (const DamagedState& failure) {
        if (!force)
            throw;
        log_line(context, "warning", failure.what());
        directory.remove();
    }
}

} // namespace

int run_delete(const Context& context, const Arguments& args)
{
    if (!args.has("regex")) {
        delete_one(context, args.operand(0), args.has("force"));
        return 0;
    }
    const std::regex wanted(args.operand(0), std::regex::extended);
    for (const std::string& id : state_ids(context))
        if (std::regex_search(id, wanted))
            delete_one(context, id, args.has("force"));
    return 0;
}

} // namespace zncrun
