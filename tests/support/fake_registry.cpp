#include "fake_registry.hpp"

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

namespace {

struct Failure {
    int number = 0;
    int after = 0; // number of calls that still succeed
};

struct Registry {
    std::map<std::string, CONTAINER_STATE> containers;
    std::map<std::string, Failure> failures;
    std::vector<fake_registry::Call> calls;
    std::function<void(const fake_registry::Call&)> hook;
    CONTAINER_START_PARM parm = {};
};

std::mutex mutex;

Registry& registry()
{
    static Registry the;
    return the;
}

std::optional<std::string> text(const char* s)
{
    return s != nullptr ? std::optional<std::string>(s) : std::nullopt;
}

// Records the call and runs the hook; returns OK unless the function was set to fail.
STATUS note(fake_registry::Call call)
{
    call.errnoBefore = errno;
    std::function<void(const fake_registry::Call&)> hook;
    int number = 0;
    {
        const std::lock_guard lock(mutex);
        registry().calls.push_back(call);
        hook = registry().hook;
        if (const auto found = registry().failures.find(call.function);
            found != registry().failures.end() && found->second.after-- <= 0)
            number = found->second.number;
    }
    if (hook)
        hook(call);
    errno = number;
    return number == 0 ? OK : ERROR;
}

CONTAINER_STATE* find(const char* id)
{
    errno = EINVAL;
    if (id == nullptr)
        return nullptr;
    errno = ENODEV;
    const auto found = registry().containers.find(id);
    return found != registry().containers.end() ? &found->second : nullptr;
}

void copy(char* to, std::size_t size, const std::string& from)
{
    std::strncpy(to, from.c_str(), size - 1);
}

} // namespace

namespace fake_registry {

void reset()
{
    const std::lock_guard lock(mutex);
    registry() = Registry();
}

void add(const std::string& id, CONTAINER_STATUS status, const std::string& bundle)
{
    CONTAINER_STATE state = {};
    state.status = status;
    copy(state.ver, sizeof state.ver, "1.0.2");
    copy(state.containerId, sizeof state.containerId, id);
    copy(state.bundlePath, sizeof state.bundlePath, bundle);
    const std::lock_guard lock(mutex);
    registry().containers[id] = state;
}

void set_context(const std::string& id, struct containerCtx* context)
{
    const std::lock_guard lock(mutex);
    registry().containers.at(id).pCtx = context;
}

void set_created_time(const std::string& id, time_t when)
{
    const std::lock_guard lock(mutex);
    registry().containers.at(id).createdTime = when;
}

void set_start_parm(const CONTAINER_START_PARM& parm)
{
    const std::lock_guard lock(mutex);
    registry().parm = parm;
}

void fail(const std::string& function, int errorNumber, int nth)
{
    const std::lock_guard lock(mutex);
    registry().failures[function] = {errorNumber, nth - 1};
}

void on_call(std::function<void(const Call&)> hook)
{
    const std::lock_guard lock(mutex);
    registry().hook = std::move(hook);
}

std::vector<Call> calls()
{
    const std::lock_guard lock(mutex);
    return registry().calls;
}

} // namespace fake_registry

STATUS zncContainerInit(void)
{
    return note({"zncContainerInit", {}, {}, 0, 0, 0});
}

STATUS zncContainerCreate(const char* containerId, const char* bundlePath, unsigned int option,
                          ZNC_ATTR* pAttr)
{
    if (note({"zncContainerCreate", text(containerId), text(bundlePath), pAttr != nullptr, option,
              0}) != OK)
        return ERROR;
    if (containerId == nullptr || bundlePath == nullptr) {
        errno = EINVAL;
        return ERROR;
    }
    fake_registry::add(containerId, STATE_CREATED, bundlePath);
    return OK;
}

STATUS zncContainerStart(const char* containerId, CONTAINER_START_PARM* param)
{
    if (note({"zncContainerStart", text(containerId), {}, 0, 0, 0}) != OK)
        return ERROR;
    const std::lock_guard lock(mutex);
    CONTAINER_STATE* state = find(containerId);
    if (state == nullptr)
        return ERROR;
    if (state->status != STATE_CREATED) {
        errno = EBUSY;
        return ERROR;
    }
    *param = registry().parm;
    state->status = STATE_RUNNING;
    return OK;
}

STATUS zncContainerKill(const char* containerId, int signo, unsigned int option)
{
    if (note({"zncContainerKill", text(containerId), {}, signo, option, 0}) != OK)
        return ERROR;
    const std::lock_guard lock(mutex);
    return find(containerId) != nullptr ? OK : ERROR;
}

STATUS zncContainerDelete(const char* containerId, unsigned int option)
{
    if (note({"zncContainerDelete", text(containerId), {}, 0, option, 0}) != OK)
        return ERROR;
    const std::lock_guard lock(mutex);
    if (find(containerId) == nullptr)
        return ERROR;
    registry().containers.erase(containerId);
    return OK;
}

STATUS zncContainerStorePidHandle(const char* containerId, OBJ_HANDLE pidHandle)
{
    if (note({"zncContainerStorePidHandle", text(containerId), {}, pidHandle, 0, 0}) != OK)
        return ERROR;
    const std::lock_guard lock(mutex);
    return find(containerId) != nullptr ? OK : ERROR;
}

STATUS zncContainerStateGet(char* containerId, CONTAINER_STATE* pState)
{
    if (note({"zncContainerStateGet", text(containerId), {}, 0, 0, 0}) != OK)
        return ERROR;
    const std::lock_guard lock(mutex);
    const CONTAINER_STATE* state = find(containerId);
    if (state == nullptr)
        return ERROR;
    *pState = *state;
    return OK;
}

BOOL zncContainerNext(char* containerId)
{
    if (note({"zncContainerNext", text(containerId), {}, 0, 0, 0}) != OK)
        return FALSE;
    const std::lock_guard lock(mutex);
    const auto next = registry().containers.upper_bound(containerId);
    if (next == registry().containers.end())
        return FALSE;
    std::strcpy(containerId, next->second.containerId);
    return TRUE;
}
