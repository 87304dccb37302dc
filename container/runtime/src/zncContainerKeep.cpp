// zncContainerKeep.cpp - see zncContainerKeep.hpp. A note is a JSON object. It contains the
// configuration, because the bundle may have been changed or removed since the container was
// created.
#include "zncContainerKeep.hpp"

#include "zncContainerLib.hpp"
#include "zncRuntimeSpec.hpp"

#include "cJSON_Additions.h"
#include "zarnel/ns.h"
#include "zarnel/ns_keep.h"

#include <array>
#include <cstring>

namespace {

using znc::fail;

bool keeping = false;

constexpr const char* kVersion = "ociVersion";
constexpr const char* kId = "id";
constexpr const char* kBundle = "bundle";
constexpr const char* kProgram = "program";
constexpr const char* kStatus = "status";
constexpr const char* kCreated = "created";
constexpr const char* kMounted = "mounted";
constexpr const char* kMounts = "mounts";
constexpr const char* kConfig = "config";

// The configuration is only borrowed, so that it need not be copied.
znc::CJsonText note_of(const CONTAINER_CTX* ctx)
{
    const CONTAINER_STATE& state = ctx->state;
    const znc::CJsonPtr note(cJSON_CreateObject());
    cJSON* const to = note.get();
    const bool complete =
        to != nullptr && cJSON_AddStringToObject(to, kVersion, state.ver) != nullptr &&
        cJSON_AddStringToObject(to, kId, state.containerId) != nullptr &&
        cJSON_AddStringToObject(to, kBundle, state.bundlePath) != nullptr &&
        cJSON_AddStringToObject(to, kProgram, ctx->appPath) != nullptr &&
        cJSON_AddNumberToObject(to, kStatus, state.status) != nullptr &&
        cJSON_AddNumberToObject(to, kCreated, static_cast<double>(state.createdTime)) != nullptr &&
        cJSON_AddBoolToObject(to, kMounted, ctx->mounted) != nullptr &&
        cJSON_AddNumberToObject(to, kMounts, ctx->mountCount) != nullptr &&
        cJSON_AddItemReferenceToObject(to, kConfig, ctx->pConfig->tree) != 0;
    znc::CJsonText text(complete ? cJSON_PrintUnformatted(to) : nullptr);
    if (text == nullptr)
        errno = ENOMEM;
    return text;
}

const cJSON* item(const cJSON* note, const char* name)
{
    return cJSON_GetObjectItemCaseSensitive(note, name);
}

// Copies a text that fits, and is not empty.
template <std::size_t size> bool take_text(const cJSON* note, const char* name, char (&field)[size])
{
    const char* const text = cJSON_GetStringValue(item(note, name));
    return text != nullptr && text[0] != '\0' &&
           znc::copy_end(field, field + size, text) != field + size;
}

bool take_numbers(const cJSON* note, CONTAINER_CTX* ctx)
{
    const std::array<const cJSON*, 3> numbers = {item(note, kStatus), item(note, kCreated),
                                                 item(note, kMounts)};
    for (const cJSON* number : numbers)
        if (cJSON_IsNumber(number) == 0)
            return false;
    const int32_t mounts = cJSON_integer_value(numbers[2]);
    ctx->state.status = cJSON_integer_value(numbers[0]);
    ctx->state.createdTime = static_cast<time_t>(cJSON_integer64_value(numbers[1]));
    ctx->mounted = cJSON_IsTrue(item(note, kMounted)) != 0 ? TRUE : FALSE;
    ctx->mountCount = static_cast<UINT32>(mounts);
    const runtimeSpecConfigMounts* const configured = ctx->pConfig->mounts;
    return mounts >= 0 && mounts <= (configured != nullptr ? configured->count : 0) &&
           ctx->state.status >= STATE_CREATED && ctx->state.status <= STATE_STOPPED;
}

bool take_config(cJSON* note, CONTAINER_CTX* ctx)
{
    znc::CJsonPtr tree(cJSON_DetachItemFromObjectCaseSensitive(note, kConfig));
    if (tree == nullptr)
        return false;
    ctx->pConfig = znc::runtime_spec_of(std::move(tree));
    return ctx->pConfig != nullptr && znc::check_config(*ctx->pConfig) == OK;
}

bool take_note(cJSON* note, CONTAINER_CTX* ctx)
{
    CONTAINER_STATE& state = ctx->state;
    return note != nullptr && take_text(note, kVersion, state.ver) &&
           take_text(note, kId, state.containerId) && zncContainerIdValid(state.containerId) &&
           take_text(note, kBundle, state.bundlePath) && zncBundlePathValid(state.bundlePath) &&
           take_text(note, kProgram, ctx->appPath) && take_config(note, ctx) &&
           take_numbers(note, ctx);
}

struct FreeContext {
    void operator()(CONTAINER_CTX* ctx) const noexcept { znc::free_context(ctx); }
};

// Registers the container of a namespace. Once its program was reported, only the daemon task may
// use it (zncContainerStorePidHandle).
BOOL adopt(const znKept* kept, void* /*context*/)
{
    std::unique_ptr<CONTAINER_CTX, FreeContext> ctx(znc::malloc_zeroed<CONTAINER_CTX>().release());
    const znc::CJsonPtr note(
        cJSON_parse_whole(static_cast<const char*>(kept->note), kept->noteSize));
    if (!ctx || !take_note(note.get(), ctx.get()))
        return FALSE;
    ctx->nsId = kept->ns;
    ctx->pidHandle = static_cast<OBJ_HANDLE>(kept->program);
    ctx->state.pCtx = ctx.get();
    ctx->sem = znMutexCreate(znc::kMutexOptions);
    if (ctx->sem == nullptr || zncContainerAdd(ctx.get()) != OK)
        return FALSE;
    CONTAINER_CTX* const added = ctx.release(); // now owned by the list
    if (added->pidHandle != 0)
        static_cast<void>(znMutexTake(added->sem, ZN_NO_WAIT));
    return TRUE;
}

struct Refusal {
    void (*refused)(const char* id, const char* reason);
};

void refuse(const char* name, nsid_t /*ns*/, const char* reason, void* context)
{
    static_cast<const Refusal*>(context)->refused(name, reason);
}

} // namespace

void znc::keep_containers()
{
    keeping = true;
}

STATUS znc::keep_container(const CONTAINER_CTX* ctx)
{
    if (!keeping)
        return OK;
    const CJsonText note = note_of(ctx);
    if (note == nullptr)
        return ERROR;
    return znnsKeep(ctx->nsId, static_cast<pid_t>(ctx->pidHandle), note.get(),
                    std::strlen(note.get()));
}

int znc::adopt_containers(void (*refused)(const char* id, const char* reason))
{
    Refusal refusal = {refused};
    return zncContainerInit() == OK ? znnsAdopt(adopt, refuse, &refusal) : 0;
}
