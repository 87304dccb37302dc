// engine_process.cpp - processes of engines' containers by id and start time, and their control
// groups by path.
#include "base/failure.hpp"
#include "cgroup/cgroup.hpp"
#include "cgroup/cgroup_limits.hpp"
#include "engine_reason.hpp"
#include "engine_settings.hpp"
#include "engine_socket.hpp"
#include "ns_record.hpp"
#include "settings/settings_reader.hpp"
#include "system/pidfd.hpp"
#include "zarnel/engine.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace zn {

using znc::UniqueFd;

// The pidfd is opened first: if the start time then is the one that was noted, no other process
// can have got the id in between.
UniqueFd engine_process_open(const ZN_ENGINE_PROCESS& process)
{
    UniqueFd pidfd = process.pid > 0 ? process_open(process.pid) : UniqueFd();
    if (!pidfd || process_start_time(process.pid) != process.startTime ||
        process_ended(pidfd.get(), 0))
        return znc::fail(ESRCH, UniqueFd());
    return pidfd;
}

} // namespace zn

using namespace zn;

ZN_ENGINE_PROCESS znEngineProcessGet(pid_t pid)
{
    return {pid, process_start_time(pid)};
}

BOOL znEngineProcessAlive(const ZN_ENGINE_PROCESS* process)
{
    const znc::ErrnoSaver keep;
    return engine_process_open(*process) ? TRUE : FALSE;
}

int znEngineProcessOpen(const ZN_ENGINE_PROCESS* process)
{
    return engine_process_open(*process).release();
}

BOOL znEngineProcessEnded(const ZN_ENGINE_PROCESS* process, int milliseconds)
{
    const znc::ErrnoSaver keep;
    const UniqueFd pidfd = engine_process_open(*process);
    return !pidfd || process_ended(pidfd.get(), milliseconds) ? TRUE : FALSE;
}

STATUS znEngineProcessSignal(const ZN_ENGINE_PROCESS* process, int hostSignal)
{
    const UniqueFd pidfd = engine_process_open(*process);
    return pidfd && process_signal(pidfd.get(), hostSignal) == 0 ? OK : ERROR;
}

BOOL znEngineGroupUsable(const char* group)
{
    return cgroup_may_create(group) ? TRUE : FALSE;
}

STATUS znEngineGroupFreeze(const char* group, BOOL frozen)
{
    return znc::status_of(cgroup_freeze(group, frozen != FALSE));
}

STATUS znEngineGroupFrozen(const char* group, BOOL* frozen)
{
    bool is = false;
    const int error = cgroup_frozen(group, is);
    *frozen = is ? TRUE : FALSE;
    return znc::status_of(error);
}

STATUS znEngineGroupSignal(const char* group, int hostSignal)
{
    List<int> pids;
    const int error = cgroup_processes(group, pids);
    for (const int pid : pids)
        if (pid > 0)
            ::kill(pid, hostSignal); // a process that has ended in the meantime is ignored
    return znc::status_of(error);
}

STATUS znEngineGroupProcesses(const char* group, void (*visit)(pid_t pid, void* context),
                              void* context)
{
    List<int> pids;
    const int error = cgroup_processes(group, pids);
    for (const int pid : pids)
        visit(pid, context);
    return znc::status_of(error);
}

STATUS znEngineGroupLimit(const char* group, const char* resources, char* reason, size_t size)
{
    Reason said(reason, size);
    Resources wanted;
    SettingsFault fault;
    int error = said.say_fault(settings_read_resources(resources, wanted, fault), fault);
    if (error == 0 && !wanted.devices.empty())
        error = devices_complete(wanted.devices);
    if (error == 0) {
        const char* field = nullptr;
        error = cgroup_limit(group, wanted, &field);
        said.say_errno(error, "resources.%s", field != nullptr ? field : "");
    }
    return znc::status_of(error);
}

int znEngineGroupVersion(void)
{
    const CgroupVersion version = cgroup_version_delegated();
    return version == CgroupVersion::kV2 ? 2 : version == CgroupVersion::kV1;
}

uint64_t znEngineCpuWeight(uint64_t shares)
{
    return weight_of_shares(shares);
}

uint64_t znEngineIoWeight(uint32_t weight)
{
    return weight_of_io(weight);
}

STATUS znEngineDeviceRules(const char* resources,
                           void (*visit)(const ZN_ENGINE_DEVICE_RULE* rule, void* context),
                           void* context, char* reason, size_t size)
{
    Reason said(reason, size);
    Resources wanted;
    SettingsFault fault;
    int error = said.say_fault(settings_read_resources(resources, wanted, fault), fault);
    if (error == 0)
        error = said.say_errno(devices_complete(wanted.devices), "resources.devices");
    for (const DeviceRule& rule : wanted.devices) {
        if (error != 0)
            break;
        const ZN_ENGINE_DEVICE_RULE one = {rule.allow ? TRUE : FALSE,
                                           rule.type,
                                           rule.major,
                                           rule.minor,
                                           rule.read ? TRUE : FALSE,
                                           rule.write ? TRUE : FALSE,
                                           rule.make ? TRUE : FALSE};
        visit(&one, context);
    }
    return znc::status_of(error);
}

// The file has two parts, "Character devices:" and "Block devices:", with lines like "136 pts".
STATUS znEngineDeviceDriver(char type, int64_t major, char* name, size_t size)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/proc/devices", "re"),
                                                               std::fclose);
    if (!file)
        return ERROR;
    char line[256];
    bool isPart = false;
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        long number = 0;
        char driver[sizeof line];
        if (std::strncmp(line, "Char", 4) == 0 || std::strncmp(line, "Block", 5) == 0)
            isPart = (*line == 'B') == (type == 'b');
        else if (isPart && std::sscanf(line, "%ld %255s", &number, driver) == 2 &&
                 number == major) {
            const bool fits = std::strlen(driver) < size;
            std::snprintf(name, size, "%s", driver);
            return znc::status_of(fits ? 0 : ERANGE);
        }
    }
    return znc::status_of(ENOENT);
}

STATUS znEngineGroupRemove(const char* group, const char* mark)
{
    return znc::status_of(cgroup_remove_marked(group, mark));
}

STATUS znEngineGroupUse(const char* group, ZN_ENGINE_USE* use)
{
    CgroupUse is;
    const int error = cgroup_use(group, is);
    *use = {is.cpuNs, is.userNs,    is.systemNs,  is.memory,       is.memoryLimit,
            is.pids,  is.pidsLimit, is.readBytes, is.writtenBytes, is.oomKills};
    return znc::status_of(error);
}
