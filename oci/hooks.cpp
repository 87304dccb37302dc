#include "hooks.hpp"

#include "base/owned.hpp"
#include "bundle.hpp"
#include "front/files.hpp"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <spawn.h>
#include <sys/wait.h>

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

void read_texts(const Json* list, TextList& texts)
{
    for (const Json& one : zncctl::children(list))
        texts.add(one.is_string() ? one.get<std::string>() : "");
}

void read_hook(const Json& json, Hook& hook)
{
    hook.path = zncctl::text_of(json, "path");
    if (hook.path.empty() || hook.path[0] != '/')
        throw Failure("the path of a hook must be absolute");
    read_texts(zncctl::member(json, "args"), hook.args);
    if (hook.args.size() == 0)
        hook.args.add(hook.path);
    read_texts(zncctl::member(json, "env"), hook.env);
    hook.seconds = zncctl::integer(zncctl::member(json, "timeout"));
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

// Waits for the child's end, with SIGCHLD blocked. Nullopt on timeout.
std::optional<int> wait_for(pid_t pid, const std::optional<std::int64_t>& seconds)
{
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    const auto deadline = Clock::now() + std::chrono::seconds(seconds.value_or(0));
    for (;;) {
        int status = 0;
        const pid_t ended = ::waitpid(pid, &status, seconds ? WNOHANG : 0);
        if (ended == pid)
            return status;
        if (ended < 0 && errno != EINTR)
            throw Failure(zncctl::error_text());
        const auto left =
            std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now());
        if (seconds && left.count() <= 0)
            return std::nullopt;
        if (!seconds)
            continue;
        const timespec wait = {static_cast<time_t>(left.count() / 1000000000),
                               static_cast<long>(left.count() % 1000000000)};
        ::sigtimedwait(&child, nullptr, &wait);
    }
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
    posix_spawn_file_actions_adddup2(&actions, input.get(), 0);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
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
    program.cwd = "/";
    program.file = hook.path.c_str();
    program.argv = hook.args.get();
    program.envp = hook.env.size() != 0 || place.document != nullptr ? hook.env.get() : environ;
    program.console = -1;
    std::array<char, ZN_ENGINE_REASON_MAX> reason{};
    pid_t pid = -1;
    if (znEngineHook(&place.process, place.document, place.group.c_str(), &program, state.c_str(),
                     &pid, reason.data(), reason.size()) != OK)
        throw Failure(reason.data());
    return pid;
}

// Blocks SIGCHLD while it exists, so that sigtimedwait() can wait for the end of a child.
class ChildrenBlocked {
  public:
    ChildrenBlocked()
    {
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        ::pthread_sigmask(SIG_BLOCK, &child, &before_);
    }
    ~ChildrenBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    ChildrenBlocked(const ChildrenBlocked&) = delete;
    ChildrenBlocked& operator=(const ChildrenBlocked&) = delete;

  private:
    sigset_t before_;
};

void run_hook(const Hook& hook, const std::string& state, const HookPlace* place)
{
    const ChildrenBlocked blocked;
    const pid_t pid =
        place != nullptr ? spawn_inside(hook, state, *place) : spawn_outside(hook, state);
    const auto status = wait_for(pid, hook.seconds);
    if (!status) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        throw Failure(fmt::format("it took longer than {} seconds", *hook.seconds));
    }
    if (*status != 0)
        throw Failure(fmt::format("exit status {}", WIFEXITED(*status) ? WEXITSTATUS(*status)
                                                                       : 128 + WTERMSIG(*status)));
}

const Json* hooks_of(const Json& config, const char* kind)
{
    return zncctl::member(zncctl::member(config, "hooks"), kind);
}

} // namespace

bool has_hooks(const Json& config, const char* kind)
{
    const Json* list = hooks_of(config, kind);
    return list != nullptr && !list->empty();
}

void run_hooks(const Json& config, const char* kind, const std::string& state, OnFailure reaction,
               const HookPlace* place)
{
    for (const Json& one : zncctl::children(hooks_of(config, kind))) {
        Hook hook;
        try {
            read_hook(one, hook);
            run_hook(hook, state, place);
        } catch (const Failure& failure) {
            if (reaction == OnFailure::kFail)
                throw Failure(
                    fmt::format("error running {} hook {}: {}", kind, hook.path, failure.what()));
        }
    }
}

} // namespace zncrun
