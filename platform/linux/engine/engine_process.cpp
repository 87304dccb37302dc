// engine_process.cpp - processes of engines' containers by id and start time, and their control
// groups by path.
#include "cgroup/cgroup.hpp"
#include "engine_reason.hpp"
#include "engine_settings.hpp"
#include "engine_socket.hpp"
#include "ns_record.hpp"
#include "settings/settings_reader.hpp"
#include "system/pidfd.hpp"
#include "zarnel/engine.h"

#include <cerrno>
#include <cstring>

namespace zn {
namespace {

using znc::UniqueFd;

STATUS result(int error)
{
    if (error == 0)
        return OK;
    errno = error;
    return ERROR;
}

} // namespace

// The pidfd is opened first: if the start time then is the one that was noted, no other process
// can have got the id in between.
UniqueFd engine_process_open(const ZN_ENGINE_PROCESS& process)
{
    UniqueFd pidfd = process.pid > 0 ? process_open(process.pid) : UniqueFd();
    if (!pidfd || process_start_time(process.pid) != process.startTime ||
        process_ended(pidfd.get(), 0)) {
        errno = ESRCH;
        return UniqueFd();
    }
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
    return result(cgroup_freeze(group, frozen != FALSE));
}

STATUS znEngineGroupFrozen(const char* group, BOOL* frozen)
{
    bool is = false;
    const int error = cgroup_frozen(group, is);
    *frozen = is ? TRUE : FALSE;
    return result(error);
}

STATUS znEngineGroupSignal(const char* group, int hostSignal)
{
    List<int> pids;
    const int error = cgroup_processes(group, pids);
    for (const int pid : pids)
        if (pid > 0)
            ::kill(pid, hostSignal); // a process that has ended in the meantime is ignored
    return result(error);
}

STATUS znEngineGroupProcesses(const char* group, void (*visit)(pid_t pid, void* context),
                              void* context)
{
    List<int> pids;
    const int error = cgroup_processes(group, pids);
    for (const int pid : pids)
        visit(pid, context);
    return result(error);
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
    return result(error);
}

STATUS znEngineGroupRemove(const char* group, const char* mark)
{
    return result(cgroup_remove_marked(group, mark));
}

STATUS znEngineGroupUse(const char* group, ZN_ENGINE_USE* use)
{
    CgroupUse is;
    const int error = cgroup_use(group, is);
    *use = {is.cpuNs, is.userNs,    is.systemNs,  is.memory,       is.memoryLimit,
            is.pids,  is.pidsLimit, is.readBytes, is.writtenBytes, is.oomKills};
    return result(error);
}
