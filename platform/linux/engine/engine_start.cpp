// engine_start.cpp - starts the program of a container that waits, and further programs.
#include "base/failure.hpp"
#include "zarnel/engine.h"

#include "base/file.hpp"
#include "cgroup/cgroup.hpp"
#include "engine_cgroup.hpp"
#include "engine_join.hpp"
#include "engine_listener.hpp"
#include "engine_reason.hpp"
#include "engine_settings.hpp"
#include "engine_socket.hpp"
#include "engine_user.hpp"
#include "system/pidfd.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sched.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/socket.h>
#include <utility>

namespace zn {
namespace {

using znc::UniqueFd;

// The namespaces that a further program joins. Those that the container shares with the host are
// joined, too, which changes nothing.
constexpr unsigned long kJoined = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS |
                                  CLONE_NEWNET | CLONE_NEWCGROUP | CLONE_NEWTIME;

// Milliseconds until the first process must have answered, or executed the program.
constexpr int kStartWait = 20000;

struct Outcome {
    pid_t pid = -1;
    wire::SpawnReport::Kind kind = wire::SpawnReport::Kind::kError;
    int error = 0;
    int listener = -1; // the number of a descriptor that the process waits to have taken

    // Takes one report; false at the end of file.
    bool read_from(int descriptor)
    {
        wire::SpawnReport report;
        const ssize_t n = ::read(descriptor, &report, sizeof report);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            return true;
        if (n != static_cast<ssize_t>(sizeof report))
            return false;
        if (report.kind == wire::SpawnReport::Kind::kPid) {
            pid = report.value;
            return true;
        }
        if (report.kind == wire::SpawnReport::Kind::kListener) {
            listener = report.value;
            return true;
        }
        if (report.kind != wire::SpawnReport::Kind::kError)
            kind = report.kind;
        error = report.value;
        return true;
    }

    // At the end of file without an error, the process has executed the program or was killed
    // before. The last report comes right before the execution; a filter may prevent it.
    [[nodiscard]] bool is_executed(pid_t process) const
    {
        char path[64];
        char exe[64];
        std::snprintf(path, sizeof path, "/proc/%d/exe", process);
        const ssize_t len = ::readlink(path, exe, sizeof exe);
        return error == 0 && (kind == wire::SpawnReport::Kind::kProgram ||
                              (len > 0 && !std::string_view(exe, static_cast<std::size_t>(len))
                                               .starts_with("/memfd:zn-helper")));
    }
};

// Passes on the listener that a process has reported, if any. A process that cannot continue is
// killed: it may wait for an answer that nobody will give.
int pass_reported(Outcome& outcome, int pidfd, int socket, const ZN_ENGINE_LISTENER* receiver,
                  Reason& said)
{
    if (outcome.listener < 0)
        return 0;
    const int error = listener_pass(receiver, std::exchange(outcome.listener, -1), outcome.pid,
                                    pidfd, socket, said);
    if (error != 0)
        process_signal(pidfd, SIGKILL);
    return error;
}

// The same for a child of this process that has been reported.
int pass_of_child(Outcome& outcome, int socket, const ZN_ENGINE_LISTENER* receiver, Reason& said)
{
    if (outcome.listener < 0 || outcome.pid <= 0)
        return 0;
    const UniqueFd child = process_open(outcome.pid);
    const int error = pass_reported(outcome, child.get(), socket, receiver, said);
    if (error != 0)
        process_reap(child.get());
    return error;
}

// Reads until the other end is closed. EBUSY if the group is frozen: a process that has entered it
// does not continue.
int follow(int reader, const char* group, const ZN_ENGINE_LISTENER* receiver, Outcome& outcome,
           Reason& said)
{
    constexpr int kLookMs = 200;
    for (;;) {
        bool frozen = false;
        if (readable_within(reader, kLookMs)) {
            if (!outcome.read_from(reader))
                return 0;
            if (const int error = pass_of_child(outcome, reader, receiver, said); error != 0)
                return error;
        } else if (*group != '\0' && cgroup_frozen(group, frozen) == 0 && frozen) {
            return EBUSY;
        }
    }
}

// Starts the helper that joins the container, and follows its reports. 0 or an error number.
int launch_entrant(const ZN_ENGINE_PROGRAM& program, bool unconfined, int process, int record,
                   const char* group, Outcome& outcome, Reason& said)
{
    int pair[2];
    const UniqueFd file = helper_file();
    if (!file || ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
        return errno;
    const UniqueFd reader(pair[0]);
    UniqueFd writer(pair[1]);
    ProgramArguments arguments;
    ProgramDescriptors fds;
    if (!arguments.make(wire::kEntrantName, program, unconfined) ||
        !fds.make(program, {-1, writer.get(), record, program.console, process, -1}))
        return errno;
    UniqueFd pidfd;
    const pid_t helper =
        launch_helper({file.get(), SIGCHLD, fds.all(), wire::kInitFdEnd + program.descriptors,
                       arguments.argv(), program.envp},
                      pidfd);
    if (helper < 0)
        return errno;
    writer.reset();
    const int error = follow(reader.get(), group, program.listener, outcome, said);
    if (error != 0)
        process_signal(pidfd.get(), SIGKILL); // it ends when the group is thawed
    else
        process_reap(pidfd.get());
    return error;
}

// The user namespace is that of the process: the configuration may have changed since.
int take_users(pid_t pid, EngineSettings& settings)
{
    bool own = false;
    List<IdMapping> uids;
    int error = has_own_users(pid, own);
    if (error == 0 && own)
        error = mappings_read(pid, "uid_map", uids);
    return error == 0 && own ? settings.set_users(uids) : error;
}

// A program that is to be started in the container of the process `pid`.
struct Entrance {
    const ZN_ENGINE_PROGRAM& program;
    bool unconfined;
    pid_t pid;
    int pidfd;
    const char* group; // of the container

    // Starts it in the group `in`. 0 or an error number.
    int launch(const EngineSettings& settings, const char* in, Outcome& outcome, Reason& said) const
    {
        List<Text> entries;
        if (const int error = engine_cgroup_entries(in, program.subgroups, entries, said);
            error != 0)
            return error;
        const UniqueFd record =
            settings.record(std::move(entries), namespaces_to_join(pid, kJoined));
        return record
                   ? launch_entrant(program, unconfined, pidfd, record.get(), group, outcome, said)
                   : errno;
    }
};

// Runs a program in the container. 0 or an error number, with the reason said.
int enter(const ZN_ENGINE_PROCESS& process, EngineSettings& settings, const char* group,
          const ZN_ENGINE_PROGRAM& program, bool unconfined, pid_t* pid, Reason& said)
{
    const UniqueFd first = engine_process_open(process);
    if (!first)
        return said.say(ESRCH, "container not running");
    int error = unconfined ? 0 : take_users(process.pid, settings);
    const Entrance entrance = {program, unconfined, process.pid, first.get(), group};
    Outcome outcome;
    if (error == 0)
        error = entrance.launch(settings, group, outcome, said);
    // A group of v2 that has enabled controllers for groups below it takes no processes.
    if (error == 0 && outcome.pid < 0 && outcome.error == EBUSY && program.subgroups == nullptr)
        if (const Text below = engine_cgroup_below(group, process.pid)) {
            outcome = Outcome();
            error = entrance.launch(settings, below.get(), outcome, said);
        }
    if (error == EBUSY)
        return said.say(error, "cannot exec in a paused container");
    if (error != 0)
        return said.say_errno(error, "cannot start a process");
    if (outcome.pid > 0 && outcome.is_executed(outcome.pid)) {
        *pid = outcome.pid;
        return 0;
    }
    if (outcome.pid > 0) {
        const UniqueFd dead = process_open(outcome.pid);
        if (dead)
            process_reap(dead.get());
    }
    // A PID namespace whose first process has ended takes no new ones.
    if (outcome.error == ENOMEM && process_ended(first.get(), 0))
        return said.say(ESRCH, "container not running");
    if (outcome.pid > 0 && outcome.error == 0)
        return said.say(ECHILD, "the process was killed before the program was executed");
    return said.say_program(outcome.error != 0 ? outcome.error : ECHILD, outcome.kind,
                            program.file != nullptr ? program.file : program.argv[0], program.cwd);
}

// A sealed file in memory with the text, which no reader can change. The offset is 0.
UniqueFd sealed_text(const char* text)
{
    UniqueFd file =
        sealed_file(UniqueFd(::memfd_create("zn-state", MFD_CLOEXEC | MFD_ALLOW_SEALING)), text);
    if (file && ::lseek(file.get(), 0, SEEK_SET) != 0)
        file.reset();
    return file;
}

} // namespace
} // namespace zn

using namespace zn;

STATUS znEngineStart(const ZN_ENGINE_PROCESS* process, int directory,
                     const ZN_ENGINE_LISTENER* listener, char* reason, size_t size)
{
    constexpr int kRetryMs = 20;
    Reason said(reason, size);
    const UniqueFd first = engine_process_open(*process);
    const std::int64_t deadline = now_ns() + kStartWait * std::int64_t{1000000};
    UniqueFd socket = first ? start_connect(directory) : UniqueFd();
    while (first && !socket && errno == EAGAIN && now_ns() < deadline &&
           !process_ended(first.get(), kRetryMs))
        socket = start_connect(directory);
    const char go = 1;
    if (!socket && first && errno == EAGAIN)
        return znc::status_of(said.say(ETIMEDOUT, "the container's first process does not answer"));
    if (!socket)
        return znc::status_of(said.say(ESRCH, "the container does not wait for its start"));
    if (::send(socket.get(), &go, sizeof go, MSG_NOSIGNAL) != sizeof go)
        return znc::status_of(said.say_errno(errno, "the container's first process"));
    // End of file: the program was executed, which closed the other end.
    Outcome outcome;
    outcome.pid = process->pid;
    do {
        const int error = pass_reported(outcome, first.get(), socket.get(), listener, said);
        if (error != 0)
            return znc::status_of(error);
        if (!readable_within(socket.get(), kStartWait))
            return znc::status_of(
                said.say(ETIMEDOUT, "the container's first process does not answer"));
    } while (outcome.read_from(socket.get()));
    start_socket_remove(directory);
    if (outcome.error == 0 && !outcome.is_executed(process->pid))
        return znc::status_of(
            said.say(ECHILD, "the process was killed before the program was executed"));
    return znc::status_of(said.say_program(outcome.error, outcome.kind, "the program", "cwd"));
}

STATUS znEngineExec(const ZN_ENGINE_PROCESS* process, const char* document, const char* group,
                    const ZN_ENGINE_PROGRAM* program, pid_t* pid, char* reason, size_t size)
{
    Reason said(reason, size);
    EngineSettings settings;
    SettingsFault fault;
    const int error = said.say_fault(settings.read(document, fault), fault);
    return znc::status_of(
        error != 0 ? error : enter(*process, settings, group, *program, false, pid, said));
}

STATUS znEngineHook(const ZN_ENGINE_PROCESS* process, const char* document, const char* group,
                    const ZN_ENGINE_PROGRAM* hook, const char* input, pid_t* pid, char* reason,
                    size_t size)
{
    Reason said(reason, size);
    EngineSettings settings;
    SettingsFault fault;
    int error = document != nullptr ? said.say_fault(settings.read(document, fault), fault) : 0;
    if (error != 0)
        return znc::status_of(error);
    const UniqueFd state = sealed_text(input);
    if (!state)
        return znc::status_of(said.say_errno(errno, "cannot prepare the input of a hook"));
    ZN_ENGINE_PROGRAM program = *hook;
    program.input = state.get();
    return znc::status_of(
        enter(*process, settings, group, program, document == nullptr, pid, said));
}
