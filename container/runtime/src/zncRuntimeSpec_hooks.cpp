// zncRuntimeSpec_hooks.cpp - reads the section "hooks". The daemon does not run hooks; they are
// only shown by inspection.
#include "zncRuntimeSpec.hpp"

namespace {

using znc::MallocPtr;
using znc::TextList;

// Reads an optional list. False if out of memory.
bool read_list(const cJSON* item, const char* name, TextList& list, int32_t& count)
{
    const cJSON* const array = runtimeSpecGetObject(item, name);
    if (array == nullptr)
        return true;
    list = znc::text_list(array);
    count = cJSON_GetArraySize(array);
    return list != nullptr;
}

} // namespace

const char* const runtimeHookName[RUNTIME_HOOK_KINDS] = {
    "prestart", "createRuntime", "createContainer", "startContainer", "poststart", "poststop",
};

void initializeRuntimeSpecHooks(cJSON* hooksObject, runtimeSpecConfigHook* hooks[])
{
    for (int kind = 0; kind < RUNTIME_HOOK_KINDS; kind++)
        hooks[kind] =
            hooksObject != nullptr ? initializeRuntimeSpecHook(hooksObject, kind) : nullptr;
}

void destroyRuntimeSpecHooks(runtimeSpecConfigHook* hooks[])
{
    for (int kind = 0; kind < RUNTIME_HOOK_KINDS; kind++)
        destroyRuntimeSpecHook(hooks[kind]);
}

runtimeSpecConfigHook* initializeRuntimeSpecHook(cJSON* hooksObject, int kind)
{
    if (kind < 0 || kind >= RUNTIME_HOOK_KINDS)
        return nullptr;
    const int count = cJSON_GetArraySize(runtimeSpecGetObject(hooksObject, runtimeHookName[kind]));
    if (count == 0)
        return nullptr;
    auto hook = znc::malloc_zeroed<runtimeSpecConfigHook>();
    auto nodes = znc::malloc_array<runtimeHookNode*>(static_cast<std::size_t>(count));
    if (!hook || !nodes)
        return nullptr;
    hook->tree = hooksObject;
    hook->nodeCnt = count;
    hook->hookNode = nodes.release();
    // Intentional, and must not change: the nodes are made from the members of "hooks" itself, not
    // from the entries of the array for this kind. For valid input they are all null; only their
    // number is meaningful.
    int i = 0;
    const cJSON* member = nullptr;
    cJSON_ArrayForEach(member, hooksObject)
    {
        if (i == count)
            break;
        hook->hookNode[i++] = initializeRuntimeHookNode(member);
    }
    return hook.release();
}

void destroyRuntimeSpecHook(runtimeSpecConfigHook* hook)
{
    if (hook == nullptr)
        return;
    const MallocPtr<runtimeSpecConfigHook> record(hook);
    const MallocPtr<runtimeHookNode*[]> nodes(hook->hookNode);
    for (int32_t i = 0; i < hook->nodeCnt; i++)
        destroyRuntimeHookNode(hook->hookNode[i]);
}

runtimeHookNode* initializeRuntimeHookNode(const cJSON* item)
{
    char* const path = runtimeSpecGetString(item, "path");
    if (path == nullptr)
        return nullptr;
    auto node = znc::malloc_zeroed<runtimeHookNode>();
    if (!node)
        return nullptr;
    node->rtpPath = path;
    TextList args;
    TextList env;
    if (!read_list(item, "args", args, node->argsCnt) || !read_list(item, "env", env, node->envCnt))
        return nullptr;
    node->args = args.release();
    node->env = env.release();
    return node.release();
}

void destroyRuntimeHookNode(runtimeHookNode* node)
{
    if (node == nullptr)
        return;
    const MallocPtr<runtimeHookNode> record(node);
    const TextList args(node->args);
    const TextList env(node->env);
}
