#include "zncRuntimeSpec.hpp"

#include "base/failure.hpp"
#include "cJSON_Additions.h"
#include "zncRuntimeSpec_members.hpp"

#include <unistd.h>

namespace {

using znc::MallocPtr;
using znc::TextList;

constexpr int32_t kDefaultPriority = 100;
constexpr int32_t kDefaultStackSize = 0x2000;

struct ProcessDeleter {
    void operator()(runtimeSpecConfigProcess* p) const noexcept { destroyRuntimeSpecProcess(p); }
};
struct MountsDeleter {
    void operator()(runtimeSpecConfigMounts* p) const noexcept { destroyRuntimeSpecMounts(p); }
};

char* text_in(const cJSON* object, const znc::SpecMember& member)
{
    return runtimeSpecGetString(object, member.name);
}
cJSON* item_in(const cJSON* object, const znc::SpecMember& member)
{
    return runtimeSpecGetObject(object, member.name);
}

// A number given as a string replaces the default. Its range is checked when the program is
// started.
void replace_by_number(const cJSON* rtp, znc::RtpMember member, int32_t& field)
{
    const char* const text = text_in(rtp, znc::kRtpMembers[member]);
    if (text == nullptr)
        return;
    const znc::ErrnoSaver keep;
    field = static_cast<int32_t>(::strtoul(text, nullptr, 0));
}

// Fills one mount. False if out of memory: a mount must not lose its options, or a read-only mount
// would be writable.
bool read_mount(const cJSON* item, runtimeSpecConfigMount* mount)
{
    mount->src = text_in(item, znc::kMountMembers[znc::kSource]);
    mount->dst = text_in(item, znc::kMountMembers[znc::kDestination]);
    mount->type = text_in(item, znc::kMountMembers[znc::kMountType]);
    mount->opt = getMountsOption(item);
    const cJSON* const options = item_in(item, znc::kMountMembers[znc::kOptions]);
    return mount->opt != nullptr || cJSON_GetArraySize(options) == 0;
}

void destroy_mount(runtimeSpecConfigMount* mount)
{
    if (mount == nullptr)
        return;
    const MallocPtr<runtimeSpecConfigMount> record(mount);
    const TextList opt(mount->opt);
}

} // namespace

namespace znc {

TextList text_list(const cJSON* array) noexcept
{
    const int count = cJSON_GetArraySize(array);
    TextList list = malloc_array<char*>(static_cast<std::size_t>(count) + 1);
    if (!list)
        return list;
    std::size_t i = 0;
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, array) list[i++] = cJSON_GetStringValue(element);
    return list;
}

} // namespace znc

cJSON* loadRuntimeSpec(const char* path)
{
    return cJSON_load_from_file(path);
}

char* runtimeSpecGetString(const cJSON* item, const char* name)
{
    return cJSON_GetStringValue(cJSON_GetObjectItem(item, name));
}

cJSON* runtimeSpecGetObject(const cJSON* item, const char* name)
{
    return cJSON_GetObjectItem(item, name);
}

bool runtimeSpecGetBoolean(const cJSON* item, const char* name)
{
    return cJSON_IsTrue(cJSON_GetObjectItem(item, name)) != 0;
}

runtimeSpecConfigProcess* initializeRuntimeSpecProcess(cJSON* item)
{
    const cJSON* const args = item_in(item, znc::kProcessMembers[znc::kArgs]);
    if (args == nullptr) {
        // Set errno: a value left from earlier, such as ENOENT, would be taken for a missing file.
        return znc::fail(EINVAL, nullptr);
    }
    auto process = znc::malloc_zeroed<runtimeSpecConfigProcess>();
    if (!process)
        return nullptr;
    process->tree = item;
    process->argCount = cJSON_GetArraySize(args);
    TextList arg_list = znc::text_list(args);
    if (!arg_list)
        return nullptr;
    TextList env_list;
    if (const cJSON* const env = item_in(item, znc::kProcessMembers[znc::kEnv]); env != nullptr) {
        process->envCount = cJSON_GetArraySize(env);
        env_list = znc::text_list(env);
        if (!env_list)
            return nullptr;
    }
    process->args = arg_list.release();
    process->env = env_list.release();
    process->cwd = text_in(item, znc::kProcessMembers[znc::kCwd]);
    process->terminal = runtimeSpecGetBoolean(item, znc::kProcessMembers[znc::kTerminal].name);
    return process.release();
}

void destroyRuntimeSpecProcess(runtimeSpecConfigProcess* process)
{
    if (process == nullptr)
        return;
    const MallocPtr<runtimeSpecConfigProcess> record(process);
    const TextList args(process->args);
    const TextList env(process->env);
}

runtimeSpecConfigZarnel* initializeRuntimeSpecZarnel(cJSON* item)
{
    auto zarnel = znc::malloc_zeroed<runtimeSpecConfigZarnel>();
    if (!zarnel)
        return nullptr;
    zarnel->tree = item;
    zarnel->priority = kDefaultPriority;
    zarnel->stackSize = kDefaultStackSize;
    if (const cJSON* const rtp = item_in(item, znc::kZarnelMembers[znc::kRtp]); rtp != nullptr) {
        replace_by_number(rtp, znc::kRtpOptions, zarnel->option);
        replace_by_number(rtp, znc::kRtpPriority, zarnel->priority);
        replace_by_number(rtp, znc::kRtpStackSize, zarnel->stackSize);
        replace_by_number(rtp, znc::kRtpTaskOptions, zarnel->taskOption);
    }
    return zarnel.release();
}

void destroyRuntimeSpecZarnel(runtimeSpecConfigZarnel* zarnel)
{
    const MallocPtr<runtimeSpecConfigZarnel> record(zarnel);
}

runtimeSpecConfigAnnotations* initializeRuntimeSpecAnnotations(cJSON* item)
{
    const int count = cJSON_GetArraySize(item);
    if (count == 0)
        return nullptr;
    auto annotations = znc::malloc_zeroed<runtimeSpecConfigAnnotations>();
    TextList keys = znc::malloc_array<char*>(static_cast<std::size_t>(count));
    TextList values = znc::text_list(item);
    if (!annotations || !keys || !values)
        return nullptr;
    annotations->tree = item;
    annotations->k = keys.release();
    const cJSON* member = nullptr;
    cJSON_ArrayForEach(member, item) annotations->k[annotations->count++] = member->string;
    annotations->v = values.release();
    return annotations.release();
}

void destroyRuntimeSpecAnnotations(runtimeSpecConfigAnnotations* annotations)
{
    if (annotations == nullptr)
        return;
    const MallocPtr<runtimeSpecConfigAnnotations> record(annotations);
    const TextList keys(annotations->k);
    const TextList values(annotations->v);
}

runtimeSpecConfigMounts* initializeRuntimeSpecMounts(cJSON* item)
{
    if (item == nullptr)
        return nullptr;
    std::unique_ptr<runtimeSpecConfigMounts, MountsDeleter> mounts(
        znc::malloc_zeroed<runtimeSpecConfigMounts>().release());
    if (!mounts)
        return nullptr;
    const int count = cJSON_GetArraySize(item);
    mounts->tree = item;
    mounts->mount =
        znc::malloc_array<runtimeSpecConfigMount*>(static_cast<std::size_t>(count)).release();
    if (mounts->mount == nullptr)
        return nullptr;
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, item)
    {
        runtimeSpecConfigMount* const mount =
            znc::malloc_zeroed<runtimeSpecConfigMount>().release();
        if (mount == nullptr)
            return nullptr;
        mounts->mount[mounts->count++] = mount;
        if (!read_mount(element, mount))
            return nullptr;
    }
    return mounts.release();
}

void destroyRuntimeSpecMounts(runtimeSpecConfigMounts* mounts)
{
    if (mounts == nullptr)
        return;
    const MallocPtr<runtimeSpecConfigMounts> record(mounts);
    const MallocPtr<runtimeSpecConfigMount*[]> list(mounts->mount);
    for (int32_t i = 0; i < mounts->count; i++)
        destroy_mount(mounts->mount[i]);
}

char** getMountsOption(const cJSON* mountItem)
{
    const cJSON* const options = item_in(mountItem, znc::kMountMembers[znc::kOptions]);
    if (cJSON_GetArraySize(options) == 0)
        return nullptr;
    return znc::text_list(options).release();
}

runtimeSpecConfigRoot* initializeRuntimeSpecRoot(cJSON* item)
{
    char* const path = text_in(item, znc::kRootMembers[znc::kRootPath]);
    if (path == nullptr)
        return nullptr;
    auto root = znc::malloc_zeroed<runtimeSpecConfigRoot>();
    if (!root)
        return nullptr;
    root->path = path;
    root->ro = runtimeSpecGetBoolean(item, znc::kRootMembers[znc::kReadonly].name);
    root->tree = item;
    return root.release();
}

void destroyRuntimeSpecRoot(runtimeSpecConfigRoot* root)
{
    const MallocPtr<runtimeSpecConfigRoot> record(root);
}

runtimeSpecConfig* zncInitializeRuntimeSpec(const char* path)
{
    if (::access(path, F_OK) != 0)
        return nullptr;
    znc::CJsonPtr tree(loadRuntimeSpec(path));
    return tree ? znc::runtime_spec_of(std::move(tree)) : nullptr;
}

runtimeSpecConfig* znc::runtime_spec_of(CJsonPtr tree)
{
    auto config = znc::malloc_zeroed<runtimeSpecConfig>();
    if (!config)
        return nullptr;
    config->tree = tree.get();
    const auto section = [&config](znc::DocumentMember member) {
        return item_in(config->tree, znc::kDocumentMembers[member]);
    };
    config->version = cJSON_GetStringValue(section(znc::kVersion));
    config->hostName = cJSON_GetStringValue(section(znc::kHostname));
    std::unique_ptr<runtimeSpecConfigProcess, ProcessDeleter> process(
        initializeRuntimeSpecProcess(section(znc::kProcess)));
    if (!process)
        return nullptr;
    config->zarnel = initializeRuntimeSpecZarnel(section(znc::kZarnel));
    if (config->zarnel == nullptr)
        return nullptr;
    config->annotations = initializeRuntimeSpecAnnotations(section(znc::kAnnotations));
    config->mounts = initializeRuntimeSpecMounts(section(znc::kMounts));
    initializeRuntimeSpecHooks(section(znc::kHooks), config->hooks);
    config->root = initializeRuntimeSpecRoot(section(znc::kRoot));
    config->process = process.release();
    static_cast<void>(tree.release());
    return config.release();
}

void zncDestroyRuntimeSpec(runtimeSpecConfig* config)
{
    if (config == nullptr)
        return;
    const MallocPtr<runtimeSpecConfig> record(config);
    const znc::CJsonPtr tree(config->tree);
    destroyRuntimeSpecZarnel(config->zarnel);
    destroyRuntimeSpecProcess(config->process);
    destroyRuntimeSpecMounts(config->mounts);
    destroyRuntimeSpecAnnotations(config->annotations);
    destroyRuntimeSpecRoot(config->root);
    destroyRuntimeSpecHooks(config->hooks);
}
