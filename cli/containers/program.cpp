#include "program.hpp"

#include "config_check.hpp"
#include "container.hpp"
#include "environment.hpp"
#include "front/duration.hpp"
#include "front/files.hpp"
#include "pause.hpp"
#include "program_file.hpp"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/wait.h>

#include "zarnel/ns_control.h"
#include "zarnel/process.h"
#include "zarnel/process_list.h"
#include "zncontainer.h"

namespace zncctl {
namespace {

// Signals that have arrived and were not returned by next() yet.
volatile std::sig_atomic_t arrived[NSIG];

void note_signal(int signo)
{
    arrived[signo] = 1;
}

int exit_status(int wait_status)
{
    if (WIFSIGNALED(wait_status))
        return kExitSignalBase + WTERMSIG(wait_status);
    return WEXITSTATUS(wait_status);
}

// While an object exists, the standard streams of zncctl are those for the program, which inherits
// them. A descriptor with FD_CLOEXEC counts as closed, and the program gets the null device for it.
class RedirectedStreams : znc::NotCopied {
  public:
    explicit RedirectedStreams(const ProgramStreams& streams)
    {
        std::fflush(nullptr);
        for (int fd = 0; fd < 3; fd++) {
            const auto at = static_cast<std::size_t>(fd);
            saved_[at].reset(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
            if (streams[at] == kNullDevice)
                good_ = ::fcntl(fd, F_SETFD, FD_CLOEXEC) == 0 && good_;
            else
                good_ = ::dup2(streams[at], fd) == fd && good_;
            good_ = saved_[at] && good_;
        }
    }
    ~RedirectedStreams()
    {
        const znc::ErrnoSaver keep;
        std::fflush(nullptr);
        for (int fd = 0; fd < 3; fd++)
            if (const auto& saved = saved_[static_cast<std::size_t>(fd)]; saved)
                ::dup2(saved.get(), fd);
    }

    explicit operator bool() const { return good_; }

  private:
    std::array<znc::UniqueFd, 3> saved_;
    bool good_ = true;
};

// Opens the root with all mounts or, once the container has ended, the root of its bundle.
znc::UniqueFd open_root(const std::string& id, const std::string& bundle)
{
    const nsid_t ns = namespace_of(id);
    znc::UniqueFd root(ns >= 0 ? znnsRootOpen(ns) : -1);
    if (!root)
        root.reset(::open(root_of_bundle(bundle).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return root;
}

// Why the container's program could not be started.
ProgramFault start_fault(const std::string& id)
{
    const Json state = state_of(id).value_or(Json());
    const std::string bundle = text_of(state, "bundle");
    const auto config = parse_config(read_file(bundle + "/config.json").value_or(""));
    const Json* process = config ? member(*config, "process") : nullptr;
    const Json& args = children(member(process, "args"));
    const std::string* first = args.empty() ? nullptr : text(&*args.begin());
    const std::string directory = text_of(process, "cwd");
    const znc::UniqueFd root = open_root(id, bundle);
    if (first == nullptr || !root)
        return {"it cannot be examined in the container's root", kExitCannotInvoke};
    mode_t mode = 0;
    if (file_mode_in_root(root.get(), directory, mode) != 0 || !S_ISDIR(mode))
        return {fmt::format("there is no directory {} in the container's root", directory),
                kExitCannotInvoke};
    std::vector<std::string> variables;
    for (const Json& variable : children(member(process, "env")))
        if (const std::string* entry = text(&variable); entry != nullptr)
            variables.push_back(*entry);
    const Environment environment(variables);
    return program_fault(root.get(), {*first, directory, environment.value("PATH")});
}

int spawn_failure(const std::string& id, const std::string& message)
{
    const ProgramFault fault = start_fault(id);
    static_cast<void>(failure(id, fmt::format("{}: {}", message, fault.message)));
    return fault.status;
}

} // namespace

SignalQueue::SignalQueue()
{
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &before_);
    struct sigaction action = {};
    action.sa_handler = note_signal;
    action.sa_mask = all;
    // Includes SIGCHLD: if it were still ignored, as zncctl may have inherited it, the kernel would
    // discard the exit status.
    for (int signo = 1; signo < NSIG; signo++) {
        arrived[signo] = 0;
        ::sigaction(signo, &action, &actions_[static_cast<std::size_t>(signo)]);
    }
}

SignalQueue::~SignalQueue()
{
    // Discard signals that arrived after the program's end: they were not meant for zncctl.
    while (next()) {
    }
    for (int signo = 1; signo < NSIG; signo++)
        ::sigaction(signo, &actions_[static_cast<std::size_t>(signo)], nullptr);
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void SignalQueue::wait(std::span<pollfd> wanted, const timespec* time) const
{
    // ppoll() unblocks the signals only while it waits: none can get lost between a check and the
    // wait.
    sigset_t none;
    sigemptyset(&none);
    if (::ppoll(wanted.data(), wanted.size(), time, &none) < 0)
        for (pollfd& fd : wanted)
            fd.revents = 0;
}

std::optional<int> SignalQueue::next() const
{
    sigset_t none;
    sigemptyset(&none);
    const timespec no_wait = {};
    ::ppoll(nullptr, 0, &no_wait, &none);
    for (int signo = 1; signo < NSIG; signo++)
        if (arrived[signo] != 0) {
            arrived[signo] = 0;
            return signo;
        }
    return std::nullopt;
}

int startable(const std::string& id)
{
    const CONTAINER_STATUS status = status_of(id);
    if (status == STATE_UNKNOWN)
        return errno != 0 ? errno : -1;
    return status == STATE_CREATED ? 0 : EBUSY;
}

int Program::start(const std::string& id, const ProgramStreams& streams)
{
    const int error = start(streams, [&id](pid_t* pid) { return zncStartPid(id.c_str(), 0, pid); });
    if (error != 0 && pid_ != 0) // it runs, but its end cannot be detected
        zncKill(id.c_str(), zncUtilSignalNo("KILL"), ZNC_OPT_WHOLE_NAMESPACE);
    return error;
}

int Program::start(const ProgramStreams& streams, const std::function<STATUS(pid_t*)>& spawn)
{
    {
        const RedirectedStreams redirected(streams);
        errno = redirected ? 0 : errno;
        if (!redirected || spawn(&pid_) != OK) {
            pid_ = 0;
            return errno != 0 ? errno : -1;
        }
    }
    if (pid_ == 0) {
        status_ = kExitOk;
        return 0;
    }
    process_.reset(znProcessOpen(pid_));
    if (process_)
        return 0;
    const int error = errno;
    signal(SIGKILL);
    return error;
}

int Program::follow(ProgramLink host)
{
    host_ = std::move(host);
    const auto started = host_.receive(true);
    return started ? started->value : -1;
}

void Program::tell_output(std::string_view text) const
{
    if (host_)
        host_.send(LinkMessage::kOutput, 0, text);
}

std::optional<int> Program::leave()
{
    if (!host_)
        return status_;
    host_.finish_sending();
    while (const auto message = host_.receive(true)) {
        if (message->kind == LinkMessage::kEnded)
            status_ = message->value;
        if (message->kind == LinkMessage::kTakenOver)
            break;
    }
    host_.close();
    return status_;
}

void Program::look_at_host()
{
    const auto message = host_.receive(false);
    if (message && message->kind == LinkMessage::kEnded)
        status_ = message->value;
    else if (!message && errno == EPIPE)
        status_ = kExitStartFailed; // the host was killed
}

void Program::signal(int host_signal, bool group) const
{
    if (host_ && !status_)
        host_.send(group ? LinkMessage::kGroupSignal : LinkMessage::kSignal, host_signal);
    if (pid_ > 0 && !status_) // until it is reaped, its process id cannot be reused
        ::kill(group ? -pid_ : pid_, host_signal);
}

const std::optional<int>& Program::look()
{
    if (host_) {
        if (!status_)
            look_at_host();
        return status_;
    }
    int status = 0;
    if (!status_ && znProcessReap(process_.get(), &status) == OK)
        status_ = exit_status(status);
    // Once it is reaped, its process id may be reused, so it is no longer excluded.
    if (znProcessReapOthers(status_ ? 0 : pid_) != 0)
        ::raise(SIGCHLD); // there may be more: have this called again, after other events
    return status_;
}

void Program::leave_others()
{
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGCHLD, &ignore, nullptr);
    while (znProcessReapOthers(0) != 0) {
    }
}

Record describe(const Program& program, bool logged)
{
    Record record;
    record.keeper = ::getpid();
    record.program = program.pid();
    record.logged = logged;
    record.started = time_text(std::time(nullptr));
    std::array<char, 64> ns_name{};
    if (znProcessNamespace(program.pid(), ns_name.data(), ns_name.size()) == OK)
        record.pid_namespace = ns_name.data();
    return record;
}

void note_end(Record& record, const std::string& id, int status)
{
    record.exit_code = status;
    record.exited = time_text(std::time(nullptr));
    // When memory is exhausted the kernel kills with SIGKILL, and counts that in the control group.
    const nsid_t ns = status == 128 + SIGKILL ? namespace_of(id) : -1;
    ZN_NS_USE use = {};
    record.out_of_memory = ns >= 0 && znnsUseGet(ns, &use) == OK && use.oomKills > 0;
}

int start_failure(int error, const std::string& id)
{
    if (error == S_zncLib_RTP_SPAWN_FAILED)
        return spawn_failure(id, message_of(error, ""));
    static_cast<void>(daemon_failure(error == -1 ? 0 : error, id));
    print_ended_hint(error, id);
    return kExitStartFailed;
}

void print_ended_hint(int error, const std::string& id)
{
    if (error == EBUSY && status_of(id) == STATE_STOPPED)
        print_hint("a container that has ended cannot be started again: delete it and create it "
                   "anew");
}

void forward_signal(const std::string& id, int host_signal, bool everyone)
{
    const char* name = ::sigabbrev_np(host_signal);
    const int signo = zncUtilSignalNo(name);
    const unsigned option = everyone ? ZNC_OPT_WHOLE_NAMESPACE : 0;
    if (signo < 0 || call_library([&] { return zncKill(id.c_str(), signo, option); }) == OK)
        return;
    if (errno != ESRCH) // ESRCH: the program has just ended
        static_cast<void>(daemon_failure(errno, id));
}

} // namespace zncctl
