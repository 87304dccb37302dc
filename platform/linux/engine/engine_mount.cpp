#include "engine_mount.hpp"

#include "base/failure.hpp"
#include "engine_copy.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

bool equals(const char* one, const char* other)
{
    return one != nullptr && std::strcmp(one, other) == 0;
}

// Options that need no action here.
bool is_silent(const char* option)
{
    return equals(option, "defaults") || equals(option, "async") || equals(option, "nolazytime") ||
           equals(option, "nomand") || equals(option, "loud");
}

// "rro" is "ro" for all mounts of the tree.
bool take_whole(const char* option, EngineMount& out)
{
    MountPlan before = out.whole;
    if (option[0] != 'r' || !mount_plan_take(option + 1, out.whole))
        return false;
    const bool isFlag = out.whole.propagation == before.propagation;
    if (!isFlag)
        out.whole = before;
    return isFlag;
}

bool has_mode(const MountPlan& plan)
{
    const char* option = plan.options;
    for (unsigned i = 0; i < plan.optionCount; i++, option += std::strlen(option) + 1)
        if (std::strncmp(option, "mode=", 5) == 0)
            return true;
    return false;
}

bool set_attributes(int mount, const mount_attr& wanted, unsigned flags)
{
    mount_attr attr = wanted;
    return (attr.attr_set == 0 && attr.attr_clr == 0 && attr.propagation == 0) ||
           ::syscall(SYS_mount_setattr, mount, "", AT_EMPTY_PATH | flags, &attr, sizeof attr) == 0;
}

UniqueFd detached_bind(const char* source, bool recursive)
{
    const unsigned below = recursive ? AT_RECURSIVE : 0;
    return UniqueFd(static_cast<int>(
        ::syscall(SYS_open_tree, AT_FDCWD, source, OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | below)));
}

} // namespace

int engine_mount_read(const ZN_ENGINE_MOUNT& mount, EngineMount& out, const char** option)
{
    out.plan.type = mount.type;
    out.plan.bind = equals(mount.type, "bind");
    out.plan.mapped = mount.uidCount != 0 || mount.gidCount != 0;
    for (const char* const* at = mount.options; at != nullptr && *at != nullptr; at++) {
        const bool isBind = equals(*at, "bind") || equals(*at, "rbind");
        out.plan.bind = out.plan.bind || isBind;
        out.plan.recursive = out.plan.recursive || equals(*at, "rbind");
        if (isBind || is_silent(*at) || mount_plan_take(*at, out.plan) || take_whole(*at, out))
            continue;
        if (equals(*at, "idmap") || equals(*at, "ridmap")) {
            out.plan.mapped = true;
            out.mappedWhole = equals(*at, "ridmap");
            continue;
        }
        if (equals(*at, "tmpcopyup") && equals(mount.type, "tmpfs")) {
            out.copyUp = true;
            continue;
        }
        *option = *at;
        // A bind has no file system that could know the option.
        if (out.plan.bind || !mount_plan_keep(*at, out.plan))
            return EINVAL;
    }
    if (!out.plan.bind && (mount.type == nullptr || *mount.type == '\0')) {
        *option = "type";
        return EINVAL;
    }
    return 0;
}

bool engine_mount_is_inner(const MountPlan& plan)
{
    return !plan.bind &&
           (equals(plan.type, "proc") || equals(plan.type, "sysfs") || equals(plan.type, "mqueue"));
}

UniqueFd detached_filesystem(const MountPlan& plan, const char* source)
{
    const UniqueFd context(static_cast<int>(::syscall(SYS_fsopen, plan.type, FSOPEN_CLOEXEC)));
    if (!context)
        return UniqueFd();
    bool good =
        source == nullptr || *source == '\0' ||
        ::syscall(SYS_fsconfig, context.get(), FSCONFIG_SET_STRING, "source", source, 0) == 0;
    const char* option = plan.options;
    for (unsigned i = 0; i < plan.optionCount && good; i++) {
        char key[256];
        const std::size_t len = std::strcspn(option, "=");
        std::snprintf(key, sizeof key, "%.*s", static_cast<int>(len), option);
        const bool hasValue = option[len] == '=';
        good = ::syscall(SYS_fsconfig, context.get(),
                         hasValue ? FSCONFIG_SET_STRING : FSCONFIG_SET_FLAG, key,
                         hasValue ? option + len + 1 : nullptr, 0) == 0;
        option += std::strlen(option) + 1;
    }
    if (!good ||
        ::syscall(SYS_fsconfig, context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0)
        return UniqueFd();
    return UniqueFd(static_cast<int>(::syscall(SYS_fsmount, context.get(), FSMOUNT_CLOEXEC, 0)));
}

bool engine_mount_seal(int mount, const EngineMount& wanted)
{
    mount_attr attr = {};
    attr.attr_set = wanted.plan.attrSet;
    attr.attr_clr = wanted.plan.attrClear;
    mount_attr whole = {};
    whole.attr_set = wanted.whole.attrSet;
    whole.attr_clr = wanted.whole.attrClear;
    // A clone of a shared mount would be in the same peer group: what is mounted below it in the
    // container would appear on the host.
    whole.propagation = MS_PRIVATE;
    if (wanted.plan.propagation != 0)
        whole.propagation = wanted.plan.propagation;
    mount_attr owners = {};
    if (wanted.plan.mapped) {
        owners.attr_set = MOUNT_ATTR_IDMAP;
        owners.userns_fd = static_cast<std::uint64_t>(wanted.owners);
    }
    return set_attributes(mount, owners, wanted.mappedWhole ? AT_RECURSIVE : 0) &&
           set_attributes(mount, attr, 0) && set_attributes(mount, whole, AT_RECURSIVE);
}

UniqueFd engine_mount_make(const EngineMount& mount, const char* source, int root,
                           const char* destination)
{
    if (mount.plan.bind && (source == nullptr || *source != '/'))
        return znc::fail(ENOENT, UniqueFd());
    UniqueFd made = mount.plan.bind ? detached_bind(source, mount.plan.recursive)
                                    : detached_filesystem(mount.plan, source);
    if (!made ||
        (mount.copyUp && !directory_copy(root, destination, made.get(), !has_mode(mount.plan))) ||
        !engine_mount_seal(made.get(), mount))
        return UniqueFd();
    return made;
}

} // namespace zn
