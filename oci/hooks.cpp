#include "hooks.hpp"

#include "base/not_copied.hpp"
#include "base/owned.hpp"
#include "bundle.hpp"
#include "fields.hpp"
#include "front/files.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <limits>
#include <optional>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

namespace zncrun {
namespace {

using Clock = std::chrono::steady_clock;

struct Hook {
    std::string path;
    TextList args;
    TextList env;
    std::optional<std::int64_t> seconds;
};

void read_hook(const Fields& fields, Hook& hook)
{
    constexpr std::int64_t kLongest = std::numeric_limits<std::int32_t>::max();
    hook.path = fields.text("path");
    if (hook.path.empty() || hook.path[0] != '/')
        throw Failure(fields.name("path") + ": not an absolute path");
    fields.each_text("args", [&](const std::string& one) { hook.args.add(one); });
    if (hook.args.size() == 0)
        hook.args.add(hook.path);
    fields.each_text("env", [&](const std::string& one) { hook.env.add(one); });
    hook.seconds = fields.number("timeout", 1, kLongest);
}

// A temporary file with the text, positioned at its beginning. A pipe could be full before the hook
// reads it.
znc::UniqueFd input_of(const std::string& text)
{
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), std::fclose);
    znc::UniqueFd input(file ? ::fcntl(::fileno(file.get()), F_DUPFD_CLOEXEC, 0) : -1);
    if (!input || !znc::write_all(input.get(), text) || ::lseek(input.get(), 0, SEEK_SET) != 0)
        throw Failure("hooks: " + zncctl::error_text());
    return input;
}

// While this exists, ends of children and the signals that would end this process are waited for.
class Awaited : znc::NotCopied {
  public:
    Awaited()
    {
        sigemptyset(&signals_);
        for (const int one : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT})
            sigaddset(&signals_, one);
        ::pthread_sigmask(SIG_BLOCK, &signals_, &before_);
        // Those that were blocked before have another meaning: they are for the program.
        for (const int one : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
            if (sigismember(&before_, one) == 1)
                sigdelset(&signals_, one);
    }
    ~Awaited() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

    // The signal that arrives; 0 if there was none by `deadline`.
    [[nodiscard]] int next(const std::optional<Clock::time_point>& deadline) const
    {
        if (!deadline)
            return std::max(::sigwaitinfo(&signals_, nullptr), 0);
        const auto left =
            std::chrono::duration_cast<std::chrono::nanoseconds>(*deadline - Clock::now()).count();
        const timespec wait = {static_cast<time_t>(std::max(left, 0L) / 1000000000),
                               static_cast<long>(std::max(left, 0L) % 1000000000)};
        return std::max(::sigtimedwait(&signals_, nullptr, &wait), 0);
    }

  private:
    sigset_t signals_;
    sigset_t before_;
};

// A hook is the first process of a group of its own, which ends with it.
[[noreturn]] void end_hook(pid_t pid, const std::string& reason)
{
    ::kill(-pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    throw Failure(reason);
}

// Waits for the end of the hook and returns its wait status.
int wait_for(pid_t pid, const std::optional<std::int64_t>& seconds, const Awaited& awaited)
{
    std::optional<Clock::time_point> deadline;
    if (seconds)
        deadline = Clock::now() + std::chrono::seconds(*seconds);
    for (;;) {
        int status = 0;
        const pid_t ended = ::waitpid(pid, &status, WNOHANG);
        if (ended == pid)
            return status;
        if (ended < 0 && errno != EINTR)
            throw Failure(zncctl::error_text());
        if (deadline && Clock::now() >= *deadline)
            end_hook(pid, fmt::format("it took longer than {} seconds", *seconds));
        const int signal = awaited.next(deadline);
        if (signal != 0 && signal != SIGCHLD)
            end_hook(pid, fmt::format("signal {} was received", signal));
    }
}

// What a hook writes is not what the container's program writes.
void add_streams(posix_spawn_file_actions_t& actions, int input)
{
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    if (::fcntl(STDERR_FILENO, F_GETFD) >= 0)
        posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
}

// Runs as a child of this process, with the signal mask of a new program.
pid_t spawn_outside(const Hook& hook, const std::string& state)
{
    const znc::UniqueFd input = input_of(state);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    sigset_t none;
    sigemptyset(&none);
    posix_spawn_file_actions_init(&actions);
    add_streams(actions, input.get());
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    pid_t pid = -1;
    const int error = ::posix_spawn(&pid, hook.path.c_str(), &actions, &attributes, hook.args.get(),
                                    hook.env.size() != 0 ? hook.env.get() : environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    errno = error;
    if (error != 0)
        throw Failure(zncctl::error_text());
    return pid;
}

// With a document (startContainer) the hook must not get the caller's environment: without "env"
// its environment is empty.
pid_t spawn_inside(const Hook& hook, const std::string& state, const HookPlace& place)
{
    ZN_ENGINE_PROGRAM program = {};
    program.cwd = place.cwd;
    program.file = hook.path.c_str();
    program.argv = hook.args.get();
    program.envp = hook.env.size() != 0 || place.document != nullptr ? hook.env.get() : environ;
    program.console = -1;
    program.output = STDERR_FILENO;
    program.listener = place.agent != nullptr ? place.agent->listener() : nullptr;
    std::array<char, ZN_ENGINE_REASON_MAX> reason{};
    pid_t pid = -1;
    if (znEngineHook(&place.process, place.document, place.group.c_str(), &program, state.c_str(),
                     &pid, reason.data(), reason.size()) != OK)
        throw Failure(place.agent != nullptr ? place.agent->reason(reason.data()) : reason.data());
    return pid;
}

void run_hook(const Hook& hook, const std::string& state, const HookPlace* place)
{
    const Awaited awaited;
    const pid_t pid =
        place != nullptr ? spawn_inside(hook, state, *place) : spawn_outside(hook, state);
    const int status = wait_for(pid, hook.seconds, awaited);
    if (WIFSIGNALED(status)) {
        const char* const known = ::sigdescr_np(WTERMSIG(status));
        std::string signal = known != nullptr ? known : fmt::format("{}", WTERMSIG(status));
        // In lower case, as engines know it.
        signal[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(signal[0])));
        throw Failure("signal: " + signal);
    }
    if (status != 0)
        throw Failure(fmt::format("exit status {}", WEXITSTATUS(status)));
}

// Calls visit(hook) for each hook of the kind, in their order.
template <class Visit> void each_hook(const Json& config, const char* kind, Visit&& visit)
{
    if (const auto hooks = Fields(config, "").object("hooks"))
        hooks->each(kind, [&](const Json& one, const std::string& where) {
            Hook hook;
            read_hook(Fields(one, where), hook);
            visit(hook);
        });
}

} // namespace

void check_hooks(const Json& config)
{
    for (const char* kind : {"prestart", "createRuntime", "createContainer", "startContainer",
                             "poststart", "poststop"})
        each_hook(config, kind, [](const Hook&) {});
}

bool has_hooks(const Json& config, const char* kind)
{
    bool any = false;
    each_hook(config, kind, [&](const Hook&) { any = true; });
    return any;
}

void run_hooks(const Json& config, const char* kind, const std::string& state, OnFailure reaction,
               const HookPlace* place)
{
    each_hook(config, kind, [&](const Hook& hook) {
        try {
            run_hook(hook, state, place);
        } catch (const Failure& failure) {
            if (reaction == OnFailure::kFail)
                throw Failure(
                    fmt::format("error running hook {} ({}): {}", hook.path, kind, failure.what()));
        }
    });
}

} // namespace zncrun
