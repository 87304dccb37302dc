// control.cpp - the commands pause, resume, update, ps and events, which work on the control group.
#include "container.hpp"
#include "front/files.hpp"
#include "front/words.hpp"
#include "systemd_scope.hpp"

#include <array>
#include <iostream>
#include <iterator>
#include <limits>
#include <unistd.h>

#include <fmt/format.h>

namespace zncrun {
namespace {

void print(const std::string& text)
{
    if (!znc::write_all(STDOUT_FILENO, text))
        throw Failure("standard output: " + zncctl::error_text());
}

Container living(const Context& context, const Arguments& args)
{
    const StateDirectory directory = StateDirectory::open(context, args.operand(0), Lock::kNone);
    Container container = directory.read();
    const Status status = directory.status(container);
    if (status == Status::kStopped || status == Status::kCreating)
        throw Failure("container not running");
    return container;
}

// A living container with a control group.
Container controlled(const Context& context, const Arguments& args)
{
    Container container = living(context, args);
    if (container.group.empty())
        throw Failure(fmt::format("container {:?} has no control group", container.id));
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
        const auto number = zncctl::to_number<std::int64_t>(text);
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
    const Container container = controlled(context, args);
    Json pids = Json::array();
    const auto add = [](pid_t pid, void* list) { static_cast<Json*>(list)->push_back(pid); };
    if (znEngineGroupProcesses(container.group.c_str(), add, &pids) != OK)
        throw Failure(fmt::format("cgroup {}: {}", container.group, zncctl::error_text()));
    std::string table = "PID\n";
    for (const Json& pid : pids)
        table += fmt::format("{}\n", pid.get<int>());
    const bool isJson = std::string(args.value("format", "table")) == "json";
    print(isJson ? zncctl::compact(pids) + "\n" : table);
    return 0;
}

int run_events(const Context& context, const Arguments& args)
{
    if (!args.has("stats"))
        throw Failure("events: only --stats is supported");
    const Container container = controlled(context, args);
    ZN_ENGINE_USE use;
    if (znEngineGroupUse(container.group.c_str(), &use) != OK)
        throw Failure(fmt::format("cgroup {}: {}", container.group, zncctl::error_text()));
    Json event = Json::object({{"type", "stats"}, {"id", container.id}});
    event["data"] = figures(use);
    print(zncctl::compact(event) + "\n");
    return 0;
}

} // namespace zncrun
