// zncRuntimeService_inspect.cpp - builds a container's inspection document from its state and its
// parsed bundle configuration.
#include "zncContainerLib.hpp"
#include "zncRuntimeCSLib.hpp"

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace {

constexpr std::array kInspectRequest = {znc::template_param(STRING, "Id")};

// Adding a member under a constant key cannot fail: a member is missing only if `item` is null.
void add(cJSON* object, const char* key, cJSON* item)
{
    cJSON_AddItemToObjectCS(object, key, item);
}

void add_text(cJSON* object, const char* key, const char* text)
{
    add(object, key, cJSON_CreateString(text));
}

void copy_member(cJSON* from, const char* name, cJSON* to, const char* newName)
{
    zncJsonCopy(from, const_cast<char*>(name), to, const_cast<char*>(newName));
}

// For "Path" and "Entrypoint"; NULL, and no member, if there are no arguments.
const char* first_argument(const runtimeSpecConfigProcess& process)
{
    return process.args != nullptr ? process.args[0] : nullptr;
}

cJSON* later_arguments(const runtimeSpecConfigProcess& process)
{
    return first_argument(process) != nullptr ? zncConfigToArray(process.args + 1)
                                              : cJSON_CreateArray();
}

// In local time, without a zone.
bool add_created(cJSON* document, time_t created)
{
    std::tm local = {};
    if (::localtime_r(&created, &local) == nullptr)
        return false;
    char text[100];
    static_cast<void>(std::snprintf(text, sizeof text, "%d-%02d-%02dT%02d:%02d:%02d",
                                    local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                                    local.tm_hour, local.tm_min, local.tm_sec));
    add_text(document, "Created", text);
    return true;
}

// Adds an object that a builder function returned; false if it is null.
bool add_built(cJSON* document, const char* key, cJSON* item)
{
    if (item == nullptr)
        return false;
    add(document, key, item);
    return true;
}

bool fill_document(cJSON* document, CONTAINER_STATE& state, runtimeSpecConfig& config)
{
    add_text(document, "Id", state.containerId);
    if (!add_created(document, state.createdTime))
        return false;
    add_text(document, "Path", first_argument(*config.process));
    if (!add_built(document, "args", later_arguments(*config.process)) ||
        !add_built(document, "State", zncInspectContainerState(&state)))
        return false;
    add_text(document, "Platform", "zarnel");
    add_text(document, "Name", state.containerId);
    return add_built(document, "HostConfig", zncInspectHostConfig(&config)) &&
           add_built(document, "Config", zncInspectContainerConfig(&config));
}

} // namespace

int zncInspectContainer(cJSON* root, cJSON* array)
{
    const auto [id] = znc::read_params(root, kInspectRequest);
    znc::CJsonPtr document(cJSON_CreateObject());
    if (document == nullptr)
        return ENOMEM;
    CONTAINER_STATE state = {};
    if (zncContainerStateGet(znc::param_pointer<char>(id), &state) != OK)
        return errno;
    // Only the daemon task creates and deletes containers, so the configuration cannot go away
    // while it is read. A container that is still being created has no context yet.
    if (state.pCtx == nullptr || state.pCtx->pConfig == nullptr)
        return ENODEV;
    if (!fill_document(document.get(), state, *state.pCtx->pConfig))
        return errno;
    cJSON_AddItemToArray(array, document.release());
    return 0;
}

// The first member is the one that is true; the order of the members is part of the output.
cJSON* zncInspectContainerState(CONTAINER_STATE* pState)
{
    cJSON* object = cJSON_CreateObject();
    if (object == nullptr)
        return nullptr;
    const auto add_flags = [object](const char* is, const char* isNot, const char* norThis) {
        add(object, is, cJSON_CreateTrue());
        add(object, isNot, cJSON_CreateFalse());
        add(object, norThis, cJSON_CreateFalse());
    };
    switch (pState->status) {
    case STATE_CREATED:
        add_flags("Created", "Running", "Stopped");
        break;
    case STATE_RUNNING:
        add_flags("Running", "Stopped", "Created");
        break;
    case STATE_STOPPED:
        add_flags("Stopped", "Running", "Created");
        break;
    default:
        break;
    }
    return object;
}

cJSON* zncInspectHostConfig(runtimeSpecConfig* pConfig)
{
    cJSON* object = cJSON_CreateObject();
    if (object == nullptr)
        return nullptr;
    const runtimeSpecConfigZarnel& zarnel = *pConfig->zarnel;
    add(object, "option", cJSON_CreateNumber(zarnel.option));
    add(object, "priority", cJSON_CreateNumber(zarnel.priority));
    add(object, "taskOption", cJSON_CreateNumber(zarnel.taskOption));
    add(object, "stackSize", cJSON_CreateNumber(zarnel.stackSize));
    return object;
}

cJSON* zncInspectContainerConfig(runtimeSpecConfig* pConfig)
{
    cJSON* object = cJSON_CreateObject();
    if (object == nullptr)
        return nullptr;
    const runtimeSpecConfigProcess& process = *pConfig->process;
    add_text(object, "Hostname", pConfig->hostName);
    copy_member(process.tree, "env", object, "Env");
    copy_member(process.tree, "args", object, "Cmd");
    copy_member(pConfig->tree, "mounts", object, "Volumes");
    copy_member(process.tree, "cwd", object, "WorkingDir");
    add_text(object, "Entrypoint", first_argument(process));
    copy_member(pConfig->tree, "annotations", object, "Labels");
    return object;
}
