// control.cpp - the commands pause, resume, update, ps and events, which work on the control group.
#include "container.hpp"
#include "front/files.hpp"
#include "front/sizes.hpp"
#include "front/words.hpp"
#include "systemd_scope.hpp"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <iostream>
#include <iterator>
#include <limits>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace zncrun {
namespace {

Container living(const Context& context, const Arguments& args)
{
    const StateDirectory directory = StateDirectory::open(context, args.operand(0), Lock::kNone);
    Container container = directory.read();
    const Status status = directory.status(container);
    if (status == Status::kStopped || status == Status::kCreating)
        throw Failure("container not running");
    return container;
}

void demand_group(const Container& container)
{
    if (container.group.empty())
        throw Failure(fmt::format("container {:?} has no control group", container.id));
}

// A living container with a control group.
Container controlled(const Context& context, const Arguments& args)
{
    Container container = living(context, args);
    demand_group(container);
    return container;
}

int freeze(const Context& context, const Arguments& args, BOOL frozen)
{
    const Container container = controlled(context, args);
    if (znEngineGroupFreeze(container.group.c_str(), frozen) != OK)
        throw Failure(fmt::format("cgroup {}: {}", container.group, zncctl::error_text()));
    return 0;
}

// A member of "resources" that an option sets.
struct Limit {
    const char* option;
    const char* section;
    const char* member;
};
constexpr Limit kLimits[] = {
    {"memory", "memory", "limit"},         {"memory-reservation", "memory", "reservation"},
    {"memory-swap", "memory", "swap"},     {"cpu-shares", "cpu", "shares"},
    {"cpu-share", "cpu", "shares"},        {"cpu-quota", "cpu", "quota"},
    {"cpu-period", "cpu", "period"},       {"pids-limit", "pids", "limit"},
    {"blkio-weight", "blockIO", "weight"},
};

std::string resources_of(const Arguments& args)
{
    if (const char* path = args.value("resources")) {
        if (std::string(path) == "-")
            return {std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
        const auto text = zncctl::read_file(path);
        if (!text)
            throw Failure(fmt::format("{}: {}", path, zncctl::error_text()));
        return *text;
    }
    Json json = Json::object();
    for (const Limit& limit : kLimits) {
        const char* text = args.value(limit.option);
        if (text == nullptr)
            continue;
        // Limits of memory may have a unit; -1 is no limit.
        const bool isSize = std::string_view(limit.section) == "memory" && text[0] != '-';
        const auto number = isSize ? zncctl::to_bytes(text) : zncctl::to_number<std::int64_t>(text);
        if (!number)
            throw Failure(fmt::format("--{}: {:?} is not a number", limit.option, text));
        json[limit.section][limit.member] = *number;
    }
    for (const char* set : {"cpus", "mems"})
        if (const char* text = args.value(fmt::format("cpuset-{}", set)))
            json["cpu"][set] = text;
    return zncctl::compact(json);
}

Json figures(const ZN_ENGINE_USE& use)
{
    const auto limit = [](std::uint64_t value) {
        return value == std::numeric_limits<std::uint64_t>::max() ? 0 : value;
    };
    Json data = Json::object();
    data["cpu"]["usage"] =
        Json::object({{"total", use.cpuNs}, {"kernel", use.systemNs}, {"user", use.userNs}});
    data["memory"]["usage"] =
        Json::object({{"usage", use.memory}, {"limit", limit(use.memoryLimit)}});
    data["pids"] = Json::object({{"current", use.pids}, {"limit", limit(use.pidsLimit)}});
    return data;
}

void print_event(const Json& event)
{
    print(zncctl::compact(event) + "\n");
}

// Prints the statistics once. Returns how often the kernel has killed a process for lack of memory.
std::uint64_t print_use(const Container& container)
{
    ZN_ENGINE_USE use;
    if (znEngineGroupUse(container.group.c_str(), &use) != OK)
        throw Failure(fmt::format("cgroup {}: {}", container.group, zncctl::error_text()));
    Json event = Json::object({{"type", "stats"}, {"id", container.id}});
    event["data"] = figures(use);
    print_event(event);
    return use.oomKills;
}

// The milliseconds between two statistics: "5s", "100ms", "1m".
std::int64_t interval_of(const Arguments& args)
{
    constexpr std::pair<std::string_view, std::int64_t> kUnits[] = {
        {"ms", 1}, {"s", 1000}, {"m", 60000}};
    constexpr std::int64_t kMost = 1000000;
    const std::string_view text = args.value("interval", "5s");
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const auto number = zncctl::to_number<std::int64_t>(text.substr(0, digits));
    for (const auto& [unit, milliseconds] : kUnits)
        if (number && *number > 0 && *number <= kMost && text.substr(digits) == unit)
            return *number * milliseconds;
    throw Failure(fmt::format("--interval: {:?} is not a time such as 5s or 100ms", text));
}

// What ps(1) prints, started with the words after the id.
std::string output_of_ps(const Arguments& args)
{
    TextList words;
    words.add("ps");
    for (std::size_t i = 1; i < args.operands(); i++)
        words.add(args.operand(i));
    if (args.operands() == 1)
        words.add("-ef");
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        throw Failure("ps: " + zncctl::error_text());
    const znc::UniqueFd reader(ends[0]);
    znc::UniqueFd writer(ends[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, writer.get(), STDOUT_FILENO);
    pid_t pid = -1;
    errno = ::posix_spawnp(&pid, "ps", &actions, nullptr, words.get(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (errno != 0)
        throw Failure("ps: " + zncctl::error_text());
    writer.reset();
    std::string text = zncctl::read_to_end(reader.get());
    int status = 0;
    while (::waitpid(pid, &status, 0) != pid)
        if (errno != EINTR)
            throw Failure("ps: " + zncctl::error_text());
    if (status != 0)
        throw Failure("ps failed");
    return text;
}

// The header line of ps, and the lines with one of these process ids in the column "PID".
std::string process_table(const Arguments& args, const Json& pids)
{
    const std::vector<std::string> lines = zncctl::split(output_of_ps(args), '\n');
    std::string table = lines.front() + "\n";
    std::size_t column = 0;
    std::istringstream header(lines.front());
    std::string word;
    while (header >> word && word != "PID")
        column++;
    if (word != "PID")
        throw Failure("ps: its output has no column PID");
    for (const std::string& line : lines) {
        std::istringstream fields(line);
        for (std::size_t i = 0; i <= column; i++)
            fields >> word;
        const auto pid = zncctl::to_number<std::int64_t>(word);
        if (fields && pid && std::find(pids.begin(), pids.end(), *pid) != pids.end())
            table += line + "\n";
    }
    return table;
}

} // namespace

int run_pause(const Context& context, const Arguments& args)
{
    return freeze(context, args, TRUE);
}

int run_resume(const Context& context, const Arguments& args)
{
    return freeze(context, args, FALSE);
}

int run_update(const Context& context, const Arguments& args)
{
    const Container container = controlled(context, args);
    std::array<char, ZN_ENGINE_REASON_MAX> reason{};
    const std::string resources = resources_of(args);
    if (znEngineGroupLimit(container.group.c_str(), resources.c_str(), reason.data(),
                           reason.size()) != OK)
        throw Failure(reason.data());
    if (!container.scope.empty())
        update_scope(container.scope, resources);
    return 0;
}

int run_ps(const Context& context, const Arguments& args)
{
    const StateDirectory directory = StateDirectory::open(context, args.operand(0), Lock::kNone);
    const Container container = directory.read();
    demand_group(container);
    Json pids = Json::array();
    const auto add = [](pid_t pid, void* list) { static_cast<Json*>(list)->push_back(pid); };
    // The group of a stopped container may be gone, or have processes that its program left.
    if (znEngineGroupProcesses(container.group.c_str(), add, &pids) != OK && errno != ENOENT)
        throw Failure(fmt::format("cgroup {}: {}", container.group, zncctl::error_text()));
    const bool isJson = std::string(args.value("format", "table")) == "json";
    print(isJson ? zncctl::compact(pids) + "\n" : process_table(args, pids));
    return 0;
}

int run_events(const Context& context, const Arguments& args)
{
    const Container container = controlled(context, args);
    const std::int64_t interval = interval_of(args);
    std::uint64_t oomKills = print_use(container);
    if (args.has("stats"))
        return 0;
    // The kernel reports neither event where it can be waited for together with the other.
    constexpr std::int64_t kLookMs = 200;
    for (std::int64_t left = interval;;) {
        const std::int64_t look = std::min(left, kLookMs);
        const bool isEnded =
            znEngineProcessEnded(&container.process, static_cast<int>(look)) != FALSE;
        ZN_ENGINE_USE use;
        if (znEngineGroupUse(container.group.c_str(), &use) == OK && use.oomKills > oomKills) {
            oomKills = use.oomKills;
            print_event(Json::object({{"type", "oom"}, {"id", container.id}}));
        }
        if (isEnded)
            return 0;
        left -= look;
        if (left > 0)
            continue;
        print_use(container);
        left = interval;
    }
}

} // namespace zncrun
