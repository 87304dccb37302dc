#include "container.hpp"

#include "base/not_copied.hpp"
#include "front/duration.hpp"
#include "front/files.hpp"
#include "front/words.hpp"
#include "hooks.hpp"
#include "log.hpp"
#include "seccomp_agent.hpp"
#include "signals.hpp"
#include "systemd_scope.hpp"

#include <algorithm>
#include <array>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

namespace zncrun {
namespace {

using Reason = std::array<char, ZN_ENGINE_REASON_MAX>;

constexpr int kKillMilliseconds = 10000;

// Removes the directory of a container that was not completed.
class Unfinished : znc::NotCopied {
  public:
    explicit Unfinished(StateDirectory& directory) : directory_(&directory) {}
    ~Unfinished()
    {
        try {
            if (directory_ != nullptr)
                directory_->remove();
        } catch (const Failure&) { // report only the original failure
        }
    }
    void keep() { directory_ = nullptr; }

  private:
    StateDirectory* directory_;
};

std::string new_mark()
{
    std::array<std::uint64_t, 2> random{};
    if (::getrandom(random.data(), sizeof random, 0) != static_cast<ssize_t>(sizeof random))
        throw Failure("random numbers: " + zncctl::error_text());
    return fmt::format("{:016x}{:016x}", random[0], random[1]);
}

std::string state_text(const Container& container, Status status)
{
    return zncctl::compact(state_document(container, status));
}

constexpr const char* kCreationHooks[] = {"prestart", "createRuntime", "createContainer"};

// Runs the hooks of the creation. The platform calls prepared(), which must not throw.
class CreationHooks {
  public:
    CreationHooks(const Bundle& bundle, const StateDirectory& directory, Container& container)
        : bundle_(bundle), directory_(directory), container_(container)
    {
    }
    [[nodiscard]] bool any() const
    {
        return std::any_of(std::begin(kCreationHooks), std::end(kCreationHooks),
                           [&](const char* kind) { return has_hooks(bundle_.config(), kind); });
    }
    static STATUS prepared(const ZN_ENGINE_PROCESS* process, void* context)
    {
        auto* self = static_cast<CreationHooks*>(context);
        try {
            self->run(*process);
            return OK;
        } catch (const std::exception& failure) {
            self->failure_ = failure.what();
            return ERROR;
        }
    }
    [[nodiscard]] bool begun() const { return begun_; }
    // The message of the hook that failed; "" if none did.
    [[nodiscard]] const std::string& failure() const { return failure_; }

  private:
    void run(const ZN_ENGINE_PROCESS& process)
    {
        begun_ = true;
        container_.process = process;
        directory_.write(container_);
        const HookPlace inside = {process, container_.group, nullptr, container_.rootfs.c_str(),
                                  nullptr};
        for (const char* kind : kCreationHooks)
            run_hooks(bundle_.config(), kind, state_text(container_, Status::kCreating),
                      OnFailure::kFail, kind == kCreationHooks[2] ? &inside : nullptr);
    }

    const Bundle& bundle_;
    const StateDirectory& directory_;
    Container& container_;
    bool begun_ = false;
    std::string failure_;
};

// Runs the startContainer hooks, confined like the program. If one fails, the container is killed.
void run_start_hooks(const Container& container, const Json& config)
{
    if (!has_hooks(config, "startContainer"))
        return;
    const std::string document = zncctl::compact(config);
    const SeccompAgent agent(config, container, Status::kCreated);
    const HookPlace inside = {container.process, container.group, document.c_str(), "/", &agent};
    try {
        run_hooks(config, "startContainer", state_text(container, Status::kCreated),
                  OnFailure::kFail, &inside);
    } catch (const Failure&) {
        znEngineProcessSignal(&container.process, SIGKILL);
        znEngineProcessEnded(&container.process, kKillMilliseconds);
        throw;
    }
}

// Containers with the same id below different root directories have groups of their own. An id does
// not contain "@".
std::string group_name(const Context& context, const std::string& id)
{
    struct stat st = {};
    if (context.root == kDefaultRoot)
        return id;
    if (::stat(context.root.c_str(), &st) != 0)
        throw Failure(fmt::format("{}: {}", context.root, zncctl::error_text()));
    return fmt::format("{}@{:x}-{:x}", id, st.st_dev, st.st_ino);
}

} // namespace

const char* pid_file_of(const Arguments& args)
{
    const char* path = args.value("pid-file");
    struct stat st = {};
    if (path != nullptr && ::lstat(path, &st) == 0 && !S_ISREG(st.st_mode))
        throw Failure(fmt::format("--pid-file: {}: not a regular file", path));
    return path;
}

void write_pid_file(const char* path, pid_t pid)
{
    if (path == nullptr)
        return;
    const std::string whole = path;
    const std::size_t slash = whole.rfind('/');
    const std::string above = slash == whole.npos ? "." : whole.substr(0, slash + 1);
    const znc::UniqueFd directory(::open(above.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory ||
        !zncctl::replace_file(directory.get(),
                              whole.substr(slash == whole.npos ? 0 : slash + 1).c_str(),
                              std::to_string(pid)))
        throw Failure(fmt::format("{}: {}", whole, zncctl::error_text()));
}

int preserved_descriptors(const Arguments& args)
{
    const char* text = args.value("preserve-fds", "0");
    const auto count = zncctl::to_number<int>(text);
    if (!count || *count < 0 || *count > ZN_ENGINE_DESCRIPTORS_MAX)
        throw Failure(fmt::format("--preserve-fds: {:?} is not a number from 0 to {}", text,
                                  ZN_ENGINE_DESCRIPTORS_MAX));
    const int all = std::min(*count + listening_descriptors(), ZN_ENGINE_DESCRIPTORS_MAX);
    // Called before this process opens any file, which could get the number of a missing
    // descriptor.
    for (int fd = 3; fd < 3 + all; fd++)
        if (::fcntl(fd, F_GETFD) < 0)
            throw Failure(fmt::format("--preserve-fds: descriptor {} is not open", fd));
    return all;
}

// The control group that the container gets without systemd; "" if it gets none. Where this process
// may not create groups, root of a user namespace has containers without; a configuration that
// limits them is refused when they are created.
std::string plain_group(const Context& context, const Bundle& bundle, const std::string& name)
{
    if (!context.groups)
        return "";
    const std::string group = bundle.group(name);
    const bool isMissing =
        znEngineRootless() != FALSE && znEngineGroupUsable(group.c_str()) == FALSE;
    return isMissing ? "" : group;
}

// The group is known before it is created: whoever deletes the container finds it.
void choose_group(const Context& context, const Bundle& bundle, Container& container,
                  std::optional<NewScope>& scope)
{
    std::string name = group_name(context, container.id);
    if (!context.systemd) {
        container.group = plain_group(context, bundle, name);
        return;
    }
    std::replace(name.begin(), name.end(), '@', '.'); // not in names of scopes
    scope.emplace(bundle, name);
    container.group = scope->group();
    container.scope = scope->unit();
}

Container create_container(const Context& context, const Arguments& args,
                           std::optional<Console>& console, Console::Place place)
{
    const int descriptors = preserved_descriptors(args);
    const char* pidFile = pid_file_of(args);
    Bundle bundle(args.value("bundle", ""), args.value("config", ""));
    for (const std::string& name : bundle.unknown_capabilities())
        log_line(context, "warning", "unknown capability " + name + " is not granted");
    console.emplace(args, bundle.process(), place);
    Container container;
    container.id = args.operand(0);
    container.bundle = bundle.directory();
    container.rootfs = bundle.rootfs();
    container.created = zncctl::time_text(std::time(nullptr));
    container.mark = new_mark();
    container.annotations = bundle.annotations();
    StateDirectory directory = StateDirectory::create(context, container.id);
    Unfinished unfinished(directory);
    std::optional<NewScope> scope;
    choose_group(context, bundle, container, scope);
    directory.write(container);
    directory.write_config(bundle.document());
    debug_line(context, fmt::format("container {}: bundle {}, root filesystem {}, cgroup {}",
                                    container.id, container.bundle, container.rootfs,
                                    container.group.empty() ? "none" : container.group));
    offer_ready_socket(bundle, directory);
    ZN_ENGINE_PLAN plan =
        bundle.plan(container.group, directory.get(), console->socket(), descriptors);
    plan.mark = container.mark.c_str();
    console->set_size(plan.program);
    plan.program.keepKeyring = args.has("no-new-keyring") ? TRUE : FALSE;
    if (scope)
        scope->add_to(plan);
    CreationHooks hooks(bundle, directory, container);
    if (hooks.any()) {
        plan.prepared = CreationHooks::prepared;
        plan.context = &hooks;
    }
    Reason reason{};
    znc::UniqueFd alive(znEngineCreate(&plan, &container.process, reason.data(), reason.size()));
    if (!alive && scope && !scope->failure().empty())
        throw Failure(scope->failure());
    if (!alive && !hooks.begun())
        throw Failure(reason.data());
    try {
        if (!alive)
            throw Failure(!hooks.failure().empty() ? hooks.failure() : reason.data());
        directory.write(container);
        write_pid_file(pidFile, container.process.pid);
        debug_line(context, fmt::format("container {}: created, process {}", container.id,
                                        container.process.pid));
        if (znEngineRelease(alive.release(), &container.process, reason.data(), reason.size()) !=
            OK)
            throw Failure(reason.data());
    } catch (const Failure&) {
        alive.reset();
        remove_container(context, directory);
        unfinished.keep();
        throw;
    }
    unfinished.keep();
    if (scope)
        scope->keep();
    return container;
}

Started start_container(const Context& context, const std::string& id, sigset_t* signals)
{
    const StateDirectory directory = StateDirectory::open(context, id, Lock::kExclusive);
    const Container container = directory.read();
    const Status status = directory.status(container);
    if (status == Status::kStopped || status == Status::kCreating)
        throw Failure("cannot start a container that has stopped");
    if (status == Status::kPaused)
        throw Failure("cannot start a paused container");
    if (status != Status::kCreated)
        throw Failure("cannot start an already running container");
    Started started = {container.process, ReadySocket::listen(context, directory)};
    const Json config = directory.read_config();
    run_start_hooks(container, config);
    if (signals != nullptr)
        *signals = block_forwarded_signals();
    Reason reason{};
    const SeccompAgent agent(config, container, Status::kCreated);
    if (znEngineStart(&container.process, directory.get(), agent.listener(), reason.data(),
                      reason.size()) != OK)
        throw Failure(agent.reason(reason.data()));
    debug_line(context, fmt::format("container {}: started", id));
    run_hooks(config, "poststart", state_text(container, Status::kRunning), OnFailure::kContinue);
    return started;
}

void remove_container(const Context& context, StateDirectory& directory)
{
    // Without a state file, `create` was killed before it created anything else.
    if (directory.has_state()) {
        const Container container = directory.read();
        const std::string& group = container.group;
        debug_line(context, fmt::format("container {}: deleting, cgroup {}", container.id,
                                        group.empty() ? "none" : group));
        if (znEngineProcessAlive(&container.process) != FALSE) {
            znEngineProcessSignal(&container.process, SIGKILL);
            if (!group.empty())
                znEngineGroupFreeze(group.c_str(), FALSE); // on v1, frozen processes do not die
            if (znEngineProcessEnded(&container.process, kKillMilliseconds) == FALSE)
                throw Failure(fmt::format("container {:?} cannot be killed", container.id));
        }
        // EBUSY: other containers use it, or have groups below it.
        const bool isRemoved =
            group.empty() || znEngineGroupRemove(group.c_str(), container.mark.c_str()) == OK;
        if (!isRemoved && errno != EBUSY)
            throw Failure(fmt::format("cgroup {}: {}", group, zncctl::error_text()));
        if (isRemoved && !container.scope.empty())
            if (const std::string problem = remove_scope(container.scope); !problem.empty())
                log_line(context, "warning", problem);
        try {
            run_hooks(directory.read_config(), "poststop", state_text(container, Status::kStopped),
                      OnFailure::kContinue);
        } catch (const Failure&) { // the configuration cannot be read: no hooks are run
        }
    }
    directory.remove();
}

void print(const std::string& text)
{
    if (!znc::write_all(STDOUT_FILENO, text))
        throw Failure("standard output: " + zncctl::error_text());
}

} // namespace zncrun
