#include "program.hpp"

#include "config_check.hpp"
#include "container.hpp"
#include "front/files.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/wait.h>

#include "zarnel/process.h"
#include "zarnel/process_list.h"
#include "zncontainer.h"

namespace zncctl {
namespace {

// Signals that came and were not handed out yet.
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

// While it lives, the standard streams are a program's. One that is closed on exec counts as
// closed, and stands for the null device.
class StreamsInPlace {
  public:
    explicit StreamsInPlace(const ProgramStreams& streams)
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
    ~StreamsInPlace()
    {
        const znc::ErrnoSaver keep;
        std::fflush(nullptr);
        for (int fd = 0; fd < 3; fd++)
            if (const auto& saved = saved_[static_cast<std::size_t>(fd)]; saved)
                ::dup2(saved.get(), fd);
    }
    StreamsInPlace(const StreamsInPlace&) = delete;
    StreamsInPlace& operator=(const StreamsInPlace&) = delete;

    explicit operator bool() const { return good_; }

  private:
    std::array<znc::UniqueFd, 3> saved_;
    bool good_ = true;
};

// Follows a path as a process does whose root is this directory.
class Walk {
  public:
    explicit Walk(int root) { dirs_.emplace_back(::fcntl(root, F_DUPFD_CLOEXEC, 3)); }

    // 0 with the mode of what it leads to, or an error number.
    int mode_of(const std::string& path, mode_t& mode)
    {
        mode = S_IFDIR;
        push(path);
        while (!left_.empty()) {
            const std::string part = std::move(left_.back());
            left_.pop_back();
            if (part == "..")
                dirs_.resize(std::max<std::size_t>(dirs_.size() - 1, 1));
            else if (const int error = step(part, mode); error != 0)
                return error;
        }
        return 0;
    }

  private:
    static constexpr int kLinksMax = 40;

    // The parts of a path, the first one last.
    void push(std::string_view path)
    {
        while (!path.empty()) {
            const std::size_t slash = path.rfind('/');
            const std::size_t start = slash == path.npos ? 0 : slash + 1;
            if (const std::string_view part = path.substr(start); !part.empty() && part != ".")
                left_.emplace_back(part);
            path = path.substr(0, slash == path.npos ? 0 : slash);
        }
    }

    int step(const std::string& part, mode_t& mode)
    {
        struct stat st = {};
        if (!S_ISDIR(mode))
            return ENOTDIR;
        if (::fstatat(dirs_.back().get(), part.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
            return errno;
        if (S_ISLNK(st.st_mode))
            return follow(part);
        mode = st.st_mode;
        if (S_ISDIR(mode))
            dirs_.emplace_back(::openat(dirs_.back().get(), part.c_str(),
                                        O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        return dirs_.back() ? 0 : errno;
    }

    int follow(const std::string& part)
    {
        std::array<char, 4096> target{};
        const ssize_t len =
            ::readlinkat(dirs_.back().get(), part.c_str(), target.data(), target.size());
        if (len <= 0 || ++links_ > kLinksMax)
            return len < 0 ? errno : ELOOP;
        const std::string_view text(target.data(), static_cast<std::size_t>(len));
        if (text.starts_with('/'))
            dirs_.resize(1);
        push(text);
        return 0;
    }

    std::vector<znc::UniqueFd> dirs_; // the way to here
    std::vector<std::string> left_;
    int links_ = 0;
};

struct Named {
    std::string path; // inside the root
    int error;        // why it cannot be opened there, 0 if it can
    mode_t mode;
};

// What the container's program is called in its root, and what is there.
Named program_file(const std::string& id)
{
    const Json state = state_of(id).value_or(Json());
    const std::string bundle = text_of(state, "bundle");
    const auto config = parse_config(read_file(bundle + "/config.json").value_or(""));
    const Json* process = config ? member(*config, "process") : nullptr;
    const Json& args = children(member(process, "args"));
    const std::string* first = args.empty() ? nullptr : text(&*args.begin());
    Named named = {first != nullptr ? *first : "", EINVAL, 0};
    if (!named.path.starts_with('/'))
        named.path = text_of(process, "cwd") + "/" + named.path;
    const std::string root_path = root_of_bundle(bundle);
    const znc::UniqueFd root(::open(root_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (first == nullptr || !root)
        return named;
    named.error = Walk(root.get()).mode_of(named.path, named.mode);
    return named;
}

int spawn_failure(const std::string& id, const std::string& message)
{
    const Named named = program_file(id);
    const auto say = [&](const char* why, ExitStatus status) {
        return failure(id, fmt::format("{}: {}: {}", message, named.path, why), status);
    };
    if (named.error == ENOENT || named.error == ENOTDIR)
        return say("there is no such program in the container's root", kExitNoProgram);
    if (named.error != 0)
        return say("it cannot be looked at in the container's root", kExitCannotInvoke);
    if (!S_ISREG(named.mode))
        return say("it is no file", kExitCannotInvoke);
    if ((named.mode & 0111) == 0)
        return say("it is not executable", kExitCannotInvoke);
    return say("it cannot be executed; its interpreter or its format may be the reason",
               kExitCannotInvoke);
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
    // Also SIGCHLD: ignored by whoever started zncctl it would take the exit status along.
    for (int signo = 1; signo < NSIG; signo++) {
        arrived[signo] = 0;
        ::sigaction(signo, &action, &actions_[static_cast<std::size_t>(signo)]);
    }
}

SignalQueue::~SignalQueue()
{
    // What came too late for the program is not meant for zncctl either.
    while (next()) {
    }
    for (int signo = 1; signo < NSIG; signo++)
        ::sigaction(signo, &actions_[static_cast<std::size_t>(signo)], nullptr);
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void SignalQueue::wait(std::span<pollfd> wanted, const timespec* time) const
{
    // Only here are signals let through, so none comes between a look and the wait.
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
    const timespec at_once = {};
    ::ppoll(nullptr, 0, &at_once, &none);
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
    {
        const StreamsInPlace of_the_program(streams);
        errno = of_the_program ? 0 : errno;
        if (!of_the_program || zncStartPid(id.c_str(), 0, &pid_) != OK)
            return errno != 0 ? errno : -1;
    }
    if (pid_ == 0) {
        status_ = kExitOk;
        return 0;
    }
    process_.reset(znProcessOpen(pid_));
    if (process_)
        return 0;
    const int error = errno; // its end would never be seen
    zncKill(id.c_str(), zncUtilSignalNo("KILL"), ZNC_OPT_WHOLE_NAMESPACE);
    return error;
}

const std::optional<int>& Program::look()
{
    int status = 0;
    if (!status_ && znProcessReap(process_.get(), &status) == OK)
        status_ = exit_status(status);
    // From then on its id may be another's.
    if (znProcessReapOthers(status_ ? 0 : pid_) != 0)
        ::raise(SIGCHLD); // look again, after everything else
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
    std::array<char, 64> space{};
    if (znProcessNamespace(program.pid(), space.data(), space.size()) == OK)
        record.pid_namespace = space.data();
    return record;
}

int start_failure(int error, const std::string& id)
{
    if (error == S_zncLib_RTP_SPAWN_FAILED)
        return spawn_failure(id, message_of(error, ""));
    static_cast<void>(daemon_failure(error == -1 ? 0 : error, id));
    return kExitStartFailed;
}

void forward_signal(const std::string& id, int host_signal, bool everyone)
{
    const char* name = ::sigabbrev_np(host_signal);
    const int signo = zncUtilSignalNo(name);
    const unsigned option = everyone ? ZNC_OPT_WHOLE_NAMESPACE : 0;
    if (signo < 0 || call_library([&] { return zncKill(id.c_str(), signo, option); }) == OK)
        return;
    if (errno != ESRCH) // it is about to end by itself
        static_cast<void>(daemon_failure(errno, id));
}

} // namespace zncctl
