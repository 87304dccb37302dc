// bundle_config_fuzz.cpp - the reader of a bundle's "config.json", and the documents that are made
// of what it read.
#include "fuzz_input.hpp"
#include "memory_file.hpp"

#include "zncRuntimeSpec.hpp"
#include "zncprotocol.h"

namespace {

using fuzz::require;

// Sums up the bytes, so that every one is read.
std::size_t touch(const char* text)
{
    std::size_t sum = 0;
    for (; text != nullptr && *text != '\0'; ++text)
        sum += static_cast<unsigned char>(*text);
    return sum;
}

std::size_t touch_list(char** list, std::int32_t count)
{
    std::size_t sum = 0;
    if (list == nullptr)
        return sum;
    require(count >= 0 && list[count] == nullptr, "a list ends behind its last element");
    for (std::int32_t i = 0; i < count; ++i)
        sum += touch(list[i]);
    return sum;
}

std::size_t touch_mounts(const runtimeSpecConfigMounts* mounts)
{
    std::size_t sum = 0;
    for (std::int32_t i = 0; mounts != nullptr && i < mounts->count; ++i) {
        const runtimeSpecConfigMount& mount = *mounts->mount[i];
        sum += touch(mount.src) + touch(mount.dst) + touch(mount.type);
        for (char** option = mount.opt; option != nullptr && *option != nullptr; ++option)
            sum += touch(*option);
    }
    return sum;
}

std::size_t touch_hooks(runtimeSpecConfigHook* const* hooks)
{
    std::size_t sum = 0;
    for (int kind = 0; kind < RUNTIME_HOOK_KINDS; ++kind)
        for (std::int32_t i = 0; hooks[kind] != nullptr && i < hooks[kind]->nodeCnt; ++i)
            if (const runtimeHookNode* node = hooks[kind]->hookNode[i]; node != nullptr)
                sum += touch(node->rtpPath) + touch_list(node->args, node->argsCnt) +
                       touch_list(node->env, node->envCnt);
    return sum;
}

std::size_t touch_all(const runtimeSpecConfig& config)
{
    require(config.process != nullptr && config.zarnel != nullptr,
            "a configuration has a process and its settings");
    std::size_t sum = touch(config.version) + touch(config.hostName) +
                      touch_list(config.process->args, config.process->argCount) +
                      touch_list(config.process->env, config.process->envCount) +
                      touch(config.process->cwd) + touch_mounts(config.mounts) +
                      touch_hooks(config.hooks);
    if (config.root != nullptr)
        sum += touch(config.root->path);
    for (std::int32_t i = 0; config.annotations != nullptr && i < config.annotations->count; ++i)
        sum += touch(config.annotations->k[i]) + touch(config.annotations->v[i]);
    return sum;
}

void print(cJSON* document)
{
    const znc::CJsonPtr owned(document);
    const znc::CJsonText text(cJSON_PrintUnformatted(document));
    require(text != nullptr, "a document can be printed");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const fuzz::MemoryFile memory;
    const fuzz::DescriptorCount descriptors;
    const char* const path = memory.with({reinterpret_cast<const char*>(data), size});
    runtimeSpecConfig* const config = zncInitializeRuntimeSpec(path);
    if (config != nullptr) {
        fuzz::use(touch_all(*config));
        print(zncInspectHostConfig(config));
        print(zncInspectContainerConfig(config));
    }
    zncDestroyRuntimeSpec(config);
    descriptors.check();
    return 0;
}
