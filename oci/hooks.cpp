#include "hooks.hpp"

#include "base/owned.hpp"
#include "bundle.hpp"
#include "front/files.hpp"

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
        throw Failure("hooks: the path of a hook must be absolute");
    read_texts(zncctl::member(json, "args"), hook.args);
    if (hook.args.size() == 0)
        hook.args.add(hook.path);
    read_texts(zncctl::member(json, "env"), hook.env);
    hook.seconds = zncctl::integer(zncctl::member(json, "timeout"));
}

// A file with the text, to be read from its beginning. A pipe could be full before a hook reads.
znc::UniqueFd input_of(const std::string& text)
{
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), std::fclose);
    znc::UniqueFd input(file ? ::fcntl(::fileno(file.get()), F_DUPFD_CLOEXEC, 0) : -1);
    if (!input || !znc::write_all(input.get(), text) || ::lseek(input.get(), 0, SEEK_SET) != 0)
        throw Failure("hooks: " + zncctl::error_text());
    return input;
}

// Waits for the child's end, with SIGCHLD blocked. Nothing if it takes too long.
std::optional<int> wait_for(pid_t pid, const std::optional<std::int64_t>& seconds)
{
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    const auto deadline = Clock::now() + std::chrono::seconds(seconds.value_or(0));
    for (;;) {
        int status = 0;
        if (::waitpid(pid, &status, seconds ? WNOHANG : 0) == pid)
            return status;
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

void run_hook(const Hook& hook, const char* kind, const std::string& state)
{
    const znc::UniqueFd input = input_of(state);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    sigset_t none;
    sigset_t child;
    sigset_t before;
    sigemptyset(&none);
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.get(), 0);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    ::pthread_sigmask(SIG_BLOCK, &child, &before);
    pid_t pid = -1;
    const int error = ::posix_spawn(&pid, hook.path.c_str(), &actions, &attributes, hook.args.get(),
                                    hook.env.size() != 0 ? hook.env.get() : environ);
    const auto status = error == 0 ? wait_for(pid, hook.seconds) : std::nullopt;
    if (error == 0 && !status) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    errno = error;
    if (error != 0)
        throw Failure(
            fmt::format("error running {} hook {}: {}", kind, hook.path, zncctl::error_text()));
    if (!status)
        throw Failure(fmt::format("error running {} hook {}: it took longer than {} seconds", kind,
                                  hook.path, *hook.seconds));
    if (*status != 0)
        throw Failure(
            fmt::format("error running {} hook {}: exit status {}", kind, hook.path,
                        WIFEXITED(*status) ? WEXITSTATUS(*status) : 128 + WTERMSIG(*status)));
}

} // namespace

void run_hooks(const Json& config, const char* kind, const std::string& state, OnFailure reaction)
{
    const Json* list = zncctl::member(zncctl::member(config, "hooks"), kind);
    for (const Json& one : zncctl::children(list)) {
        try {
            Hook hook;
            read_hook(one, hook);
            run_hook(hook, kind, state);
        } catch (const Failure&) {
            if (reaction == OnFailure::kFail)
                throw;
        }
    }
}

} // namespace zncrun
