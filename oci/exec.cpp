// exec.cpp - the command exec: a further program in a running container.
#include "container.hpp"
#include "front/files.hpp"
#include "front/words.hpp"
#include "log.hpp"
#include "seccomp_agent.hpp"
#include "signals.hpp"

#include <array>
#include <chrono>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/stat.h>

#include <fmt/format.h>

namespace zncrun {
namespace {

// A pipe (/dev/fd/N) is read to its end, which must come in time.
std::optional<std::string> read_process(const char* path)
{
    constexpr std::size_t kMost = 4 * 1024 * 1024; // as much as the platform reads of a document
    constexpr auto kPatience = std::chrono::seconds(10);
    struct stat st = {};
    if (::stat(path, &st) != 0 || !S_ISFIFO(st.st_mode))
        return zncctl::read_file(path);
    const znc::UniqueFd pipe(::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    return pipe ? zncctl::read_pipe(pipe.get(), kMost, kPatience) : std::nullopt;
}

Json parse_process(const char* path)
{
    const auto text = read_process(path);
    if (!text)
        throw Failure(fmt::format("{}: {}", path, zncctl::error_text()));
    zncctl::JsonNotes notes;
    auto json = zncctl::parse_json(*text, &notes);
    if (!json)
        throw Failure(fmt::format("{}: {}", path, notes.problem));
    return *std::move(json);
}

// "UID" or "UID:GID".
void set_user(Json& process, const std::string& text)
{
    const std::size_t colon = text.find(':');
    const auto uid = zncctl::to_number<std::uint32_t>(std::string_view(text).substr(0, colon));
    const auto gid =
        colon == text.npos
            ? std::optional<std::uint32_t>(0)
            : zncctl::to_number<std::uint32_t>(std::string_view(text).substr(colon + 1));
    if (!uid || !gid)
        throw Failure(fmt::format("--user: {:?} is not UID or UID:GID", text));
    process["user"] = Json::object({{"uid", *uid}, {"gid", *gid}});
}

// Replaces a variable of the same name: programs differ in which duplicate they use.
void set_variable(Json& process, const std::string& text)
{
    const std::string start = text.substr(0, text.find('=')) + "=";
    Json env = Json::array();
    for (const Json& one : zncctl::children(zncctl::member(process, "env")))
        if (!one.is_string() || one.get<std::string>().rfind(start, 0) != 0)
            env.push_back(one);
    env.push_back(text);
    process["env"] = env;
}

// The container's own "process" object with the changes that the options make.
Json process_of(const Json& config, const Arguments& args)
{
    const Json* own = zncctl::member(config, "process");
    Json process = own != nullptr ? *own : Json::object();
    process["args"] = Json::array();
    for (std::size_t i = 1; i < args.operands(); i++)
        process["args"].push_back(args.operand(i));
    process["terminal"] = args.has("tty");
    process.erase("consoleSize");
    if (const char* cwd = args.value("cwd"))
        process["cwd"] = cwd;
    if (const char* user = args.value("user"))
        set_user(process, user);
    const std::vector<std::string> groups = args.values("additional-gids");
    for (const std::string& group : groups) {
        const auto gid = zncctl::to_number<std::uint32_t>(group);
        if (!gid)
            throw Failure(fmt::format("--additional-gids: {:?} is not a group id", group));
        process["user"]["additionalGids"].push_back(*gid);
    }
    for (const std::string& one : args.values("env"))
        set_variable(process, one);
    if (const char* profile = args.value("apparmor"))
        process["apparmorProfile"] = profile;
    if (const char* label = args.value("process-label"))
        process["selinuxLabel"] = label;
    if (args.has("no-new-privs"))
        process["noNewPrivileges"] = true;
    for (const std::string& one : args.values("cap"))
        for (const char* set : {"bounding", "effective", "permitted"})
            process["capabilities"][set].push_back(one);
    return process;
}

// The configuration that confines the program: its "process" object, and the container's filter.
std::string document_of(const Json& process, const Json& config)
{
    Json document = Json::object();
    document["process"] = process;
    const Json* filter = zncctl::member(zncctl::member(config, "linux"), "seccomp");
    if (filter != nullptr)
        document["linux"]["seccomp"] = *filter;
    return zncctl::compact(document);
}

// A frozen process could not start a program.
Status wait_if_paused(const StateDirectory& directory, const Container& container, bool patient)
{
    constexpr int kLookMs = 50; // v1 does not report that a group is thawed
    Status status = directory.status(container);
    while (patient && status == Status::kPaused) {
        ::poll(nullptr, 0, kLookMs);
        status = directory.status(container);
    }
    return status;
}

} // namespace

int run_exec(const Context& context, const Arguments& args)
{
    const int descriptors = preserved_descriptors(args);
    const char* pidFile = pid_file_of(args);
    const StateDirectory directory = StateDirectory::open(context, args.operand(0), Lock::kNone);
    const Container container = directory.read();
    const Status status = wait_if_paused(directory, container, args.has("ignore-paused"));
    if (status == Status::kStopped || status == Status::kCreating)
        throw Failure("cannot exec in a stopped container: container not running");
    if (status == Status::kPaused)
        throw Failure("cannot exec in a paused container");
    const Json config = directory.read_config();
    const char* file = args.value("process");
    Json json = file != nullptr ? parse_process(file) : process_of(config, args);
    if (!json.is_object())
        throw Failure("process: not an object");
    for (const std::string& name : drop_unknown_capabilities(json))
        log_line(context, "warning", "unknown capability " + name + " is not granted");
    if (args.has("tty"))
        json["terminal"] = true;
    Process process = Process::read(json);
    process.complete_environment(json, container.rootfs);
    const bool isDetached = args.has("detach");
    Console console(args, process,
                    isDetached ? Console::Place::kDetached : Console::Place::kForeground);
    ZN_ENGINE_PROGRAM program = process.program(console.socket(), descriptors);
    console.set_size(program);
    const SeccompAgent agent(config, container, Status::kRunning);
    program.listener = agent.listener();
    TextList subgroups;
    for (const std::string& one : args.values("cgroup"))
        subgroups.add(one);
    program.subgroups = subgroups.size() != 0 ? subgroups.get() : nullptr;
    std::array<char, ZN_ENGINE_REASON_MAX> reason{};
    ZN_ENGINE_PROCESS started = {};
    if (znEngineExec(&container.process, document_of(json, config).c_str(), container.group.c_str(),
                     &program, &started.pid, reason.data(), reason.size()) != OK)
        throw Failure(agent.reason(reason.data()));
    debug_line(context,
               fmt::format("container {}: exec started, process {}", container.id, started.pid));
    // Until here, a signal ends this process, and the helper with it.
    const sigset_t signals = block_forwarded_signals();
    started = znEngineProcessGet(started.pid);
    try {
        write_pid_file(pidFile, started.pid);
    } catch (const Failure&) { // nobody would know of the program
        znEngineProcessSignal(&started, SIGKILL);
        throw;
    }
    return isDetached ? 0 : wait_in_foreground(started, signals, console);
}

} // namespace zncrun
