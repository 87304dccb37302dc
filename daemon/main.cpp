// zncd - the container daemon. Runs in the foreground and serves requests until SIGTERM or SIGINT,
// then finishes the current request and ends all containers, or leaves them to the next daemon.
#include "containers.hpp"
#include "descriptor_store.hpp"
#include "log.hpp"
#include "notify.hpp"
#include "priorities.hpp"
#include "requirements.hpp"
#include "runtime_dir.hpp"
#include "stop_signals.hpp"

#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <malloc.h>
#include <span>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "zarnel/msgq.h"
#include "zarnel/ns.h"
#include "zarnel/task.h"

#include "zncPath.hpp"
#include "zncRuntimeService.hpp"

namespace {

constexpr int kExitUsage = 64;
constexpr const char* kUsage =
    "usage: zncd [--foreground] [--log-level LEVEL] [--allow-urgent] "
    "[--allow-privileged] [--userns] [--keep] [--spare N] | check | --help | --version\n";
constexpr const char* kHelp =
    "\n"
    "Serves container requests on the queue \"/znc\" until SIGTERM or SIGINT, then ends all\n"
    "containers (with --keep: only after SIGINT). Must be run as root; only root can send "
    "requests.\n"
    "\n"
    "  --foreground       no effect: zncd always runs in the foreground\n"
    "  --log-level LEVEL  \"error\", \"warning\", \"info\" (default) or \"debug\" (logs each\n"
    "                     request)\n"
    "  --allow-urgent     allow containers priorities more urgent than normal\n"
    "  --allow-privileged allow configurations that give containers more than the defaults:\n"
    "                     namespaces of the host, more capabilities, devices, privileges from\n"
    "                     set-user-ID programs, no seccomp filter\n"
    "  --userns           give each container a user namespace with host users of its own\n"
    "  --keep             leave the containers running when the daemon ends, and take over those\n"
    "                     that an earlier daemon has left\n"
    "  --spare N          make the namespaces of N containers ahead (0 to 16, default: 1)\n"
    "  check              check whether the system has what zncd needs\n"
    "\n"
    "environment:\n"
    "  ZNC_BASE       the storage base, an absolute path (default: " ZNC_STORE_BASE ")\n"
    "  NOTIFY_SOCKET  socket for service notifications (set by systemd)\n";

// Indexed by zncCmdType.
constexpr std::array kCommands = {"create", "start",  "kill",    "delete", "state",
                                  "list",   "unpack", "inspect", "store",  "ping"};

int bad_usage()
{
    std::fputs(kUsage, stderr);
    return kExitUsage;
}

// Handles words that must be the only argument and end the program. Returns the exit status, or -1
// if `word` is none of them.
int run_single_argument(std::string_view word)
{
    if (word == "--version") {
        std::puts("zncd " ZNC_VERSION);
        return 0;
    }
    if (word == "--help" || word == "-h") {
        std::printf("%s%s", kUsage, kHelp);
        return 0;
    }
    if (word == "check")
        return zncd::print_requirements() ? 0 : 1;
    return -1;
}

struct Options {
    bool allowUrgent = false;
    bool allowPrivileged = false;
    bool mapUsers = false;
    bool keep = false;
    unsigned spares = 1;
};

bool parse_spares(std::string_view text, unsigned& spares)
{
    const char* const end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, spares);
    return error == std::errc() && at == end && spares <= ZNNS_SPARES_MAX;
}

// Returns the exit status, or -1 to continue and serve.
int parse_options(std::span<char* const> words, Options& options)
{
    if (words.size() == 1)
        if (const int status = run_single_argument(words[0]); status >= 0)
            return status;
    for (std::size_t i = 0; i < words.size(); i++) {
        const std::string_view word = words[i];
        if (word == "--foreground")
            continue;
        if (word == "--allow-urgent") {
            options.allowUrgent = true;
            continue;
        }
        if (word == "--allow-privileged") {
            options.allowPrivileged = true;
            continue;
        }
        if (word == "--userns") {
            options.mapUsers = true;
            continue;
        }
        if (word == "--keep") {
            options.keep = true;
            continue;
        }
        if (word == "--spare" && i + 1 < words.size() &&
            parse_spares(words[i + 1], options.spares)) {
            i++;
            continue;
        }
        if (word != "--log-level" || i + 1 == words.size() || !zncd::set_log_level(words[i + 1]))
            return bad_usage();
        i++;
    }
    return -1;
}

// Gives unused memory of the heap back, at most once a minute: reading a configuration needs far
// more than is kept of it, and the C library would keep the rest.
void give_memory_back()
{
#ifdef __GLIBC__
    using Clock = std::chrono::steady_clock;
    static Clock::time_point next;
    const Clock::time_point now = Clock::now();
    if (now < next)
        return;
    next = now + std::chrono::minutes(1);
    ::malloc_trim(0);
#endif
}

void notify_ready()
{
    give_memory_back();
    zncd::notify("READY=1");
}

void log_request(std::int32_t command, const char* id, int error)
{
    const auto at = static_cast<std::size_t>(command);
    zncd::log(zncd::Level::kDebug, "request %s %s: %s 0x%x",
              at < kCommands.size() ? kCommands[at] : "unknown", id[0] != '\0' ? id : "-",
              error == 0 ? "done" : "failed", static_cast<unsigned>(error));
}

template <bool allow_urgent> void on_request(std::int32_t command, const char* id, int error)
{
    log_request(command, id, error);
    if (command == ZNC_CREATE && error == 0)
        zncd::apply_priority_setting(id, allow_urgent);
    give_memory_back();
}

void log_queue_failure(const char* what, int error)
{
    errno = error;
    zncd::log_errno(what);
    if (error == EMFILE || error == ENOSPC || error == EINVAL)
        zncd::log(zncd::Level::kError, "%s", znMsgQLimitHint(error));
}

void log_refusal(const char* id, const char* reason)
{
    zncd::log(zncd::Level::kWarning, "container %s: configuration refused: %s", id, reason);
}

int serve(int stop_fd, bool keep)
{
    znTaskStopFdSet(stop_fd);
    errno = 0;
    zncDaemonTask(); // returns when asked to stop, or on an error
    const int error = errno;
    znTaskStopFdSet(-1);
    zncd::notify("STOPPING=1");
    const zncd::StopRequest stop = zncd::stop_requested(stop_fd);
    if (!stop.any)
        log_queue_failure("cannot serve the request queue", error);
    if (keep && !stop.interrupt) {
        zncd::leave_containers();
        return stop.any ? 0 : 1;
    }
    if (keep)
        znMsgQUnlink(ZNC_MSG_Q_NAME);
    const bool ended = zncd::delete_all_containers();
    return stop.any && ended ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    const std::span<char* const> words(argv, static_cast<std::size_t>(argc));
    Options options;
    if (const int status = parse_options(words.subspan(argc > 0 ? 1 : 0), options); status >= 0)
        return status;
    if (::geteuid() != 0) {
        zncd::log(zncd::Level::kError, "must be run as root: namespaces and mounts require it");
        return 1;
    }
    const zncd::DescriptorStore descriptors;
    ::umask(077);
    std::signal(SIGPIPE, SIG_IGN);
    const znc::UniqueFd lock = zncd::take_lock(ZNC_VERSION);
    if (!lock || !zncd::meets_requirements())
        return 1;
    // Before the first namespace: processes started from here on inherit the blocked signals, and a
    // stop signal that arrives early is not lost.
    const znc::UniqueFd stop = zncd::block_stop_signals();
    if (!stop) {
        zncd::log_errno("signalfd");
        return 1;
    }
    if (znMsgQLimitsRaise(ZN_MSG_Q_LONGEST, ZNC_MSG_MAX_LEN) != OK) {
        log_queue_failure("cannot create the request queue", errno);
        return 1;
    }
    if (zncd::other_daemon_serves()) {
        zncd::log(zncd::Level::kError, "a daemon is running already");
        return 1;
    }
    const znKeepManager manager = descriptors.manager();
    if (!options.keep)
        zncd::recover(manager);
    else if (zncd::recover_and_adopt(manager))
        znc::keep_requests();
    else
        return 1;
    znnsPrivilegedAllow(options.allowPrivileged ? TRUE : FALSE);
    if (options.mapUsers && znnsUsersMap(TRUE) != OK) {
        zncd::log_errno("cannot create a user namespace");
        return 1;
    }
    znnsSparesSet(options.mapUsers ? 0 : options.spares); // those have no users of their own
    znnsRefusalListenerSet(log_refusal);
    znc::set_service_listener(
        {notify_ready, options.allowUrgent ? on_request<true> : on_request<false>});
    return serve(stop.get(), options.keep);
}
