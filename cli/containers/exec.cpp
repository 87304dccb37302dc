#include "exec.hpp"

#include "config_check.hpp"
#include "container.hpp"
#include "detached.hpp"
#include "front/files.hpp"
#include "pause.hpp"
#include "program_file.hpp"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "zarnel/spawn.h"

namespace zncctl {
namespace {

constexpr const char* kEnded = "it has ended";
constexpr const char* kPaused = "it is paused";

ProgramFault fault_of(int root, const ExecProgram& wanted)
{
    return program_fault(
        root, {wanted.words.front(), wanted.directory, wanted.environment.value("PATH")});
}

bool is_directory_in_root(int root, const std::string& path)
{
    mode_t mode = 0;
    return file_mode_in_root(root, path, mode) == 0 && S_ISDIR(mode);
}

STATUS spawn(const RunningContainer& container, ExecProgram& wanted, pid_t* pid)
{
    std::vector<char*> words;
    for (std::string& word : wanted.words)
        words.push_back(word.data());
    words.push_back(nullptr);
    const std::vector<char*> environment = wanted.environment.pointers();
    ZN_SPAWN_USER user = {};
    if (wanted.user)
        user = {wanted.user->uid, wanted.user->gid, wanted.user->groups.data(),
                wanted.user->groups.size()};
    znSpawnAttr attr = {};
    if (znSpawnAttrInit(&attr) != OK || znSpawnAttrSetNamespace(&attr, container.ns()) != OK ||
        znSpawnAttrSetCwd(&attr, wanted.directory.c_str()) != OK ||
        (wanted.user && znSpawnAttrSetUser(&attr, &user) != OK))
        return ERROR;
    const std::string path =
        container.root_path() + absolute_path(wanted.directory, wanted.words.front());
    return znSpawn(pid, path.c_str(), &attr, words.data(), environment.data());
}

void wait_for_end(Program& program, const SignalQueue& signals)
{
    while (!program.look()) {
        signals.wait({});
        while (signals.next()) { // signals other than SIGCHLD are ignored
        }
    }
    Program::leave_others();
}

int not_running(const std::string& id, CONTAINER_STATUS status)
{
    static_cast<void>(failure(id, "it is not running"));
    if (status == STATE_CREATED)
        print_hint(fmt::format("'zncctl start {}' starts it", printable(id)));
    else
        print_ended_hint(EBUSY, id);
    return kExitWrongState;
}

// The status in the daemon's description of a container, of whose members one is true.
CONTAINER_STATUS status_in(const Json* state)
{
    const auto is = [state](const char* name) {
        const Json* value = member(state, name);
        return value != nullptr && *value == true;
    };
    return is("Running")   ? STATE_RUNNING
           : is("Created") ? STATE_CREATED
           : is("Stopped") ? STATE_STOPPED
                           : STATE_UNKNOWN;
}

// What the command in the foreground sends.
void hear_command(ProgramLink& link, const Program& program)
{
    const auto message = link.receive(false);
    if (message &&
        (message->kind == LinkMessage::kSignal || message->kind == LinkMessage::kGroupSignal))
        program.signal(message->value, message->kind == LinkMessage::kGroupSignal);
    if (message || errno == EAGAIN)
        return;
    link.send(LinkMessage::kTakenOver, 0);
    link.close();
}

// Nobody reads it any more, but the program must not wait for somebody who does.
void drop_output(Pty& terminal)
{
    std::array<char, 4096> buffer{};
    const ssize_t n = ::read(terminal.master(), buffer.data(), buffer.size());
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR))
        terminal.close_master();
}

} // namespace

std::optional<RunningContainer> RunningContainer::find(const std::string& id, int& status)
{
    RunningContainer container(id);
    status = container.open();
    return status == kExitOk ? std::optional(std::move(container)) : std::nullopt;
}

int RunningContainer::open()
{
    const CONTAINER_STATUS status = read_configuration();
    if (status == STATE_UNKNOWN)
        return kExitStartFailed;
    if (status != STATE_RUNNING)
        return not_running(id_, status);
    if (is_paused(id_, status)) {
        static_cast<void>(failure(id_, kPaused));
        print_hint(fmt::format("'zncctl resume {}' lets it continue", printable(id_)));
        return kExitWrongState;
    }
    std::array<char, PATH_MAX> path{};
    ns_ = namespace_of(id_);
    if (ns_ >= 0)
        root_.reset(znnsRootOpen(ns_));
    if (root_ && znnsRootGet(ns_, path.data(), path.size()) == OK) {
        root_path_ = path.data();
        return kExitOk;
    }
    if (errno == ESRCH)
        return failure(id_, kEnded, kExitWrongState);
    static_cast<void>(local_failure(errno, id_));
    return kExitStartFailed;
}

// From the daemon, with the status: the file in the bundle may have changed since the container was
// created.
CONTAINER_STATUS RunningContainer::read_configuration()
{
    const znc::MallocPtr<char> text(call_library([&] { return zncContainerInfoGet(id_.c_str()); }));
    if (text == nullptr) {
        static_cast<void>(daemon_failure(errno, id_));
        return STATE_UNKNOWN;
    }
    const auto document = parse_json(text.get(), nullptr, Annotations::kMayRepeat);
    const Json& array = children(document ? &*document : nullptr);
    const Json* container = array.empty() ? nullptr : &*array.begin();
    const Json* config = member(container, "Config");
    const CONTAINER_STATUS status = status_in(member(container, "State"));
    directory_ = text_of(config, "WorkingDir");
    if (directory_.empty() || status == STATE_UNKNOWN) {
        static_cast<void>(failure(id_, "its configuration cannot be read"));
        return STATE_UNKNOWN;
    }
    environment_ = texts_of(member(config, "Env"));
    return status;
}

std::string RunningContainer::home() const
{
    User user;
    std::string error;
    static_cast<void>(lookup_user(root(), std::to_string(user_of_program(id_)), user, error));
    return user.home;
}

int start_exec(const RunningContainer& container, ExecProgram& wanted, Program& program,
               const ProgramStreams& streams)
{
    const int error =
        program.start(streams, [&](pid_t* pid) { return spawn(container, wanted, pid); });
    if (error != 0)
        return error;
    // Once the daemon has found that a container has ended, it does not signal its processes any
    // more: a program started after that must be killed. If the status is "stopped" although our
    // program runs, the daemon determined it before the program was started.
    if (status_of(container.id()) == STATE_STOPPED && !program.look()) {
        program.signal(SIGKILL);
        return ESRCH;
    }
    return 0;
}

int start_exec_detached(const RunningContainer& container, ExecProgram& wanted)
{
    return run_detached([&](znc::UniqueFd report) {
        const SignalQueue signals;
        Program program;
        const int error =
            start_exec(container, wanted, program, {kNullDevice, kNullDevice, kNullDevice});
        report_start(std::move(report), error);
        if (error == 0)
            wait_for_end(program, signals);
    });
}

void host_exec(const RunningContainer& container, ExecProgram& wanted, ProgramLink link,
               Pty terminal)
{
    const SignalQueue signals;
    Program program;
    const int error =
        start_exec(container, wanted, program, {terminal.user(), terminal.user(), terminal.user()});
    terminal.close_user();
    link.send(LinkMessage::kStarted, error);
    bool ended = error != 0;
    while (!ended || link) {
        if (const auto& status = program.look(); status && !ended) {
            link.send(LinkMessage::kEnded, *status);
            ended = true;
            continue;
        }
        std::array<pollfd, 2> wanted_fds = {pollfd{link.fd(), POLLIN, 0},
                                            pollfd{link ? -1 : terminal.master(), POLLIN, 0}};
        signals.wait(wanted_fds);
        while (signals.next()) { // signals other than SIGCHLD are ignored
        }
        if (wanted_fds[0].revents != 0)
            hear_command(link, program);
        if (wanted_fds[1].revents != 0)
            drop_output(terminal);
    }
    Program::leave_others();
}

int exec_failure(const RunningContainer& container, const ExecProgram& wanted, int error)
{
    const std::string& id = container.id();
    const auto fail = [&](std::string_view message, int status) {
        static_cast<void>(failure(id, message));
        return status;
    };
    switch (error) {
    case ESRCH:
        return fail(kEnded, kExitWrongState);
    case EBUSY:
        return fail(kPaused, kExitWrongState);
    case ENOENT:
    case ENOTDIR:
    case EACCES:
    case EISDIR:
    case ELOOP:
    case ENOEXEC: {
        if (!is_directory_in_root(container.root(), wanted.directory))
            return fail(
                fmt::format("there is no directory {} in the container's root", wanted.directory),
                kExitCannotInvoke);
        const ProgramFault fault = fault_of(container.root(), wanted);
        return fail(fault.message, fault.status);
    }
    default:
        static_cast<void>(local_failure(error == -1 ? 0 : error, id));
        return kExitStartFailed;
    }
}

} // namespace zncctl
