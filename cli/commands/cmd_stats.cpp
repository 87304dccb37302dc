// Shows what containers use of processor, memory, processes and block devices.
#include "cli/containers/container.hpp"
#include "cli/containers/pause.hpp"
#include "commands.hpp"
#include "front/escape.hpp"

#include <chrono>
#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>
#include <unistd.h>

namespace zncctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kInterval(1);
constexpr const char* kNoValue = "--"; // of a container that is not running

struct Sample {
    std::string id;
    bool running = false;
    ZN_NS_USE use = {};
    double cpu_percent = 0; // 100: one processor all the time
};

std::string size_text(std::uint64_t bytes)
{
    constexpr std::array<const char*, 5> kUnits = {"B", "KiB", "MiB", "GiB", "TiB"};
    auto size = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; size >= 1024 && unit + 1 < kUnits.size(); unit++)
        size /= 1024;
    return fmt::format("{:.{}f}{}", size, unit == 0 ? 0 : 1, kUnits[unit]);
}

// The memory limit; without one, the memory of the machine.
std::uint64_t memory_limit(const ZN_NS_USE& use)
{
    if (use.memoryLimit != ZNNS_NO_LIMIT)
        return use.memoryLimit;
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long size = ::sysconf(_SC_PAGESIZE);
    return pages > 0 && size > 0
               ? static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(size)
               : 0;
}

double memory_percent(const ZN_NS_USE& use)
{
    const std::uint64_t limit = memory_limit(use);
    return limit == 0 ? 0 : 100 * static_cast<double>(use.memory) / static_cast<double>(limit);
}

Json limit_json(std::uint64_t limit)
{
    return limit == ZNNS_NO_LIMIT ? Json() : Json(limit);
}

std::string json_of(const std::vector<Sample>& samples)
{
    Json list = Json::array();
    for (const Sample& sample : samples) {
        Json item = {{"id", sample.id}, {"running", sample.running}};
        if (const ZN_NS_USE& use = sample.use; sample.running)
            item.update({{"cpuPercent", sample.cpu_percent},
                         {"cpuNs", use.cpuNs},
                         {"memory", use.memory},
                         {"memoryLimit", limit_json(use.memoryLimit)},
                         {"memoryPercent", memory_percent(use)},
                         {"pids", use.pids},
                         {"pidsLimit", limit_json(use.pidsLimit)},
                         {"readBytes", use.readBytes},
                         {"writtenBytes", use.writtenBytes},
                         {"oomKills", use.oomKills}});
        list.push_back(std::move(item));
    }
    return compact(list);
}

std::string table_of(const std::vector<Sample>& samples)
{
    std::vector<std::vector<std::string>> rows = {
        {"ID", "CPU %", "MEM USAGE / LIMIT", "MEM %", "PIDS", "BLOCK IO"}};
    for (const Sample& sample : samples) {
        const ZN_NS_USE& use = sample.use;
        if (sample.running)
            rows.push_back(
                {sample.id, fmt::format("{:.2f}%", sample.cpu_percent),
                 fmt::format("{} / {}", size_text(use.memory), size_text(memory_limit(use))),
                 fmt::format("{:.2f}%", memory_percent(use)), std::to_string(use.pids),
                 fmt::format("{} / {}", size_text(use.readBytes), size_text(use.writtenBytes))});
        else
            rows.push_back({sample.id, kNoValue, kNoValue, kNoValue, kNoValue, kNoValue});
    }
    return table(rows);
}

class Stats {
  public:
    explicit Stats(const Arguments& args) : args_(args), ids_(args.all_operands()) {}

    int run(bool as_json)
    {
        // The share of processor time is computed from the previous sample, so the first sample is
        // not printed.
        std::vector<Sample> samples;
        if (const int status = take(samples); status != kExitOk)
            return status;
        const bool live = !as_json && !args_.has("no-stream") && ::isatty(STDOUT_FILENO) != 0;
        do {
            std::this_thread::sleep_for(kInterval);
            int status = take(samples);
            if (status == kExitOk)
                status = as_json ? print_json(json_of(samples)) : print_table(samples, live);
            if (status != kExitOk)
                return status;
        } while (!args_.has("no-stream"));
        return kExitOk;
    }

  private:
    struct Before {
        Clock::time_point time;
        std::uint64_t cpu_ns = 0;
    };

    static int print_table(const std::vector<Sample>& samples, bool live)
    {
        constexpr std::string_view kClear = "\x1b[H\x1b[2J";
        if (live && (std::fwrite(kClear.data(), 1, kClear.size(), stdout) != kClear.size()))
            return local_failure(errno, "standard output");
        return print_result(table_of(samples));
    }

    // Samples the containers that the user named, running or not; otherwise all running ones, or
    // all with --all.
    int take(std::vector<Sample>& samples)
    {
        std::optional<std::vector<std::string>> ids = ids_;
        if (ids->empty())
            ids = listed();
        if (!ids)
            return daemon_failure(errno, "");
        samples.clear();
        for (const std::string& id : *ids) {
            Sample sample;
            const int status = look(id, sample);
            if (status != kExitOk && !(status == kExitNotFound && ids_.empty()))
                return status;
            if (status == kExitOk && (sample.running || args_.has("all") || !ids_.empty()))
                samples.push_back(std::move(sample));
        }
        return kExitOk;
    }

    [[nodiscard]] std::optional<std::vector<std::string>> listed() const
    {
        if (!args_.has("all"))
            return all_ids(STATE_RUNNING);
        return all_ids();
    }

    int look(const std::string& id, Sample& sample)
    {
        sample.id = id;
        const CONTAINER_STATUS status = status_of(id);
        if (status == STATE_UNKNOWN && errno == ENODEV && ids_.empty())
            return kExitNotFound; // deleted since it was listed
        if (status == STATE_UNKNOWN)
            return daemon_failure(errno, id);
        const nsid_t ns = status == STATE_RUNNING ? namespace_of(id) : -1;
        sample.running = ns >= 0 && znnsUseGet(ns, &sample.use) == OK;
        if (sample.running)
            add_share(sample);
        else if (status == STATE_RUNNING && errno == ENOTSUP)
            return failure(id, "this machine has no cgroups, which are needed to measure usage");
        else if (status == STATE_RUNNING && errno != ESRCH)
            return local_failure(errno, id);
        return kExitOk;
    }

    void add_share(Sample& sample)
    {
        const Before now = {Clock::now(), sample.use.cpuNs};
        const auto [found, first] = before_.try_emplace(sample.id, now);
        const std::chrono::duration<double, std::nano> time = now.time - found->second.time;
        if (!first && time.count() > 0 && now.cpu_ns > found->second.cpu_ns)
            sample.cpu_percent =
                100 * static_cast<double>(now.cpu_ns - found->second.cpu_ns) / time.count();
        found->second = now;
    }

    const Arguments& args_;
    std::vector<std::string> ids_; // that the user named
    std::map<std::string, Before> before_;
};

} // namespace

int cmd_stats(const Arguments& args)
{
    bool as_json = false;
    if (args.has("all") && args.operands() > 0)
        return usage_failure("--all cannot be combined with ids");
    if (!read_format(args, as_json))
        return kExitUsage;
    return Stats(args).run(as_json);
}

} // namespace zncctl
