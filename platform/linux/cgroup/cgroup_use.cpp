// cgroup_use.cpp - what a group uses; see cgroup.hpp.
#include "cgroup_tree.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr std::uint64_t kNsPerUs = 1000;
constexpr std::uint64_t kNsPerSecond = 1000000000;

// A missing file leaves the value unchanged.
int optional(int error)
{
    return error == ENOENT || error == EOPNOTSUPP ? 0 : error;
}

int cpu_v1(int group, CgroupUse& use)
{
    const auto ticks = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    int error = optional(control_number(group, "cpuacct.usage", use.cpuNs));
    if (error == 0)
        error = optional(control_value(group, "cpuacct.stat", "user", use.userNs));
    if (error == 0)
        error = optional(control_value(group, "cpuacct.stat", "system", use.systemNs));
    use.userNs *= kNsPerSecond / ticks;
    use.systemNs *= kNsPerSecond / ticks;
    return error;
}

int cpu_v2(int group, CgroupUse& use)
{
    int error = optional(control_value(group, "cpu.stat", "usage_usec", use.cpuNs));
    if (error == 0)
        error = optional(control_value(group, "cpu.stat", "user_usec", use.userNs));
    if (error == 0)
        error = optional(control_value(group, "cpu.stat", "system_usec", use.systemNs));
    use.cpuNs *= kNsPerUs;
    use.userNs *= kNsPerUs;
    use.systemNs *= kNsPerUs;
    return error;
}

int memory_v1(int group, CgroupUse& use)
{
    // Without a limit, the file has the highest number of bytes in whole pages.
    const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    const std::uint64_t unlimited = INT64_MAX / page * page;
    std::uint64_t cache = 0;
    int error = optional(control_number(group, "memory.usage_in_bytes", use.memory));
    if (error == 0)
        error = optional(control_value(group, "memory.stat", "total_inactive_file", cache));
    if (error == 0)
        error = optional(control_number(group, "memory.limit_in_bytes", use.memoryLimit));
    if (error == 0)
        error = optional(control_value(group, "memory.oom_control", "oom_kill", use.oomKills));
    use.memory -= cache < use.memory ? cache : use.memory;
    if (use.memoryLimit >= unlimited)
        use.memoryLimit = UINT64_MAX;
    return error;
}

int memory_v2(int group, CgroupUse& use)
{
    std::uint64_t cache = 0;
    int error = optional(control_number(group, "memory.current", use.memory));
    if (error == 0)
        error = optional(control_value(group, "memory.stat", "inactive_file", cache));
    if (error == 0)
        error = optional(control_number(group, "memory.max", use.memoryLimit));
    if (error == 0)
        error = optional(control_value(group, "memory.events", "oom_kill", use.oomKills));
    use.memory -= cache < use.memory ? cache : use.memory;
    return error;
}

int pids_both(int group, CgroupUse& use)
{
    const int error = optional(control_number(group, "pids.current", use.pids));
    return error != 0 ? error : optional(control_number(group, "pids.max", use.pidsLimit));
}

// The number behind a key in "8:0 rbytes=1 wbytes=2" or "8:0 Read 1"; 0 if there is none.
std::uint64_t number_behind(const char* line, const char* key)
{
    const char* at = std::strstr(line, key);
    return at != nullptr ? std::strtoull(at + std::strlen(key), nullptr, 10) : 0;
}

int add_io(int group, const char* file, const char* read, const char* write, CgroupUse& use)
{
    ControlLines lines(group, file);
    while (const char* line = lines.next()) {
        use.readBytes += number_behind(line, read);
        use.writtenBytes += number_behind(line, write);
    }
    return lines.error();
}

// Which of these files exist depends on the kernel version and its I/O schedulers.
int io_v1(int group, CgroupUse& use)
{
    for (const char* file :
         {"blkio.throttle.io_service_bytes_recursive", "blkio.throttle.io_service_bytes",
          "blkio.io_service_bytes_recursive", "blkio.io_service_bytes"}) {
        const int error = add_io(group, file, " Read ", " Write ", use);
        if (error != ENOENT)
            return optional(error);
    }
    return 0;
}

int io_v2(int group, CgroupUse& use)
{
    return optional(add_io(group, "io.stat", " rbytes=", " wbytes=", use));
}

struct Figures {
    Controller controller;
    int (*v1)(int group, CgroupUse& use);
    int (*v2)(int group, CgroupUse& use);
};

constexpr Figures kFigures[] = {
    {Controller::kCpuacct, cpu_v1, cpu_v2},
    {Controller::kMemory, memory_v1, memory_v2},
    {Controller::kPids, pids_both, pids_both},
    {Controller::kBlkio, io_v1, io_v2},
};

} // namespace

int cgroup_use(const Hierarchies& hierarchies, const char* path, CgroupUse& use)
{
    GroupPath name;
    int error = name.set(path);
    use = CgroupUse();
    use.memoryLimit = UINT64_MAX;
    use.pidsLimit = UINT64_MAX;
    bool found = false;
    for (const Figures& figures : kFigures) {
        const Hierarchy* in = hierarchies.with(figures.controller);
        if (error != 0 || in == nullptr)
            continue;
        const UniqueFd group = group_open(*in, name);
        if (!group && errno == ENOENT)
            continue;
        found = true;
        error = group ? (in->unified ? figures.v2 : figures.v1)(group.get(), use) : errno;
    }
    return error == 0 && !found ? ENOENT : error;
}

} // namespace zn
