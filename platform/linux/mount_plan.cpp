#include "mount_plan.hpp"

#include <cerrno>
#include <cstring>
#include <linux/mount.h>
#include <sys/mount.h>

namespace zn {
namespace {

struct Flag {
    const char* name;
    std::uint64_t set;
    std::uint64_t clear;
};

constexpr std::uint64_t kAtime = MOUNT_ATTR__ATIME;

constexpr Flag kFlags[] = {
    {"defaults", 0, 0},
    {"ro", MOUNT_ATTR_RDONLY, 0},
    {"rw", 0, MOUNT_ATTR_RDONLY},
    {"nosuid", MOUNT_ATTR_NOSUID, 0},
    {"suid", 0, MOUNT_ATTR_NOSUID},
    {"nodev", MOUNT_ATTR_NODEV, 0},
    {"dev", 0, MOUNT_ATTR_NODEV},
    {"noexec", MOUNT_ATTR_NOEXEC, 0},
    {"exec", 0, MOUNT_ATTR_NOEXEC},
    {"nosymfollow", MOUNT_ATTR_NOSYMFOLLOW, 0},
    {"symfollow", 0, MOUNT_ATTR_NOSYMFOLLOW},
    {"nodiratime", MOUNT_ATTR_NODIRATIME, 0},
    {"diratime", 0, MOUNT_ATTR_NODIRATIME},
    {"relatime", MOUNT_ATTR_RELATIME, kAtime},
    {"norelatime", MOUNT_ATTR_RELATIME, kAtime},
    {"noatime", MOUNT_ATTR_NOATIME, kAtime},
    {"atime", MOUNT_ATTR_RELATIME, kAtime},
    {"strictatime", MOUNT_ATTR_STRICTATIME, kAtime},
    {"nostrictatime", MOUNT_ATTR_RELATIME, kAtime},
};

struct Propagation {
    const char* name;
    std::uint64_t value;
};

constexpr Propagation kPropagations[] = {
    {"private", MS_PRIVATE},       {"rprivate", MS_PRIVATE},       {"slave", MS_SLAVE},
    {"rslave", MS_SLAVE},          {"shared", MS_SHARED},          {"rshared", MS_SHARED},
    {"unbindable", MS_UNBINDABLE}, {"runbindable", MS_UNBINDABLE},
};

} // namespace

bool mount_plan_take(const char* option, MountPlan& plan)
{
    for (const Flag& flag : kFlags) {
        if (std::strcmp(option, flag.name) != 0)
            continue;
        // The last option about a flag takes effect.
        plan.attrSet = (plan.attrSet & ~flag.clear) | flag.set;
        plan.attrClear = (plan.attrClear & ~flag.set) | flag.clear;
        return true;
    }
    for (const Propagation& word : kPropagations) {
        if (std::strcmp(option, word.name) != 0)
            continue;
        plan.propagation = word.value;
        return true;
    }
    return false;
}

bool mount_plan_keep(const char* option, MountPlan& plan)
{
    const std::size_t len = std::strlen(option) + 1;
    if (plan.optionsLen + len > sizeof plan.options)
        return false;
    std::memcpy(plan.options + plan.optionsLen, option, len);
    plan.optionsLen += len;
    plan.optionCount++;
    return true;
}

namespace {

bool is_unspecified(const char* type)
{
    return type == nullptr || *type == '\0' || std::strcmp(type, "unknown") == 0;
}

} // namespace

int mount_plan_make(const char* type, const char* const* options, bool sourceExists,
                    MountPlan& plan)
{
    plan.bind = type != nullptr && std::strcmp(type, "bind") == 0;
    // A clone of a shared mount would be in the same peer group: mounts made below it in the
    // container would appear on the host.
    plan.propagation = MS_PRIVATE;
    bool dev = false;
    bool suid = false;
    for (; options != nullptr && *options != nullptr; options++) {
        if (std::strcmp(*options, "bind") == 0) {
            plan.bind = true;
        } else if (std::strcmp(*options, "rbind") == 0) {
            plan.bind = true;
            plan.recursive = true;
        } else if (std::strcmp(*options, "idmap") == 0 || std::strcmp(*options, "ridmap") == 0) {
            plan.mapped = true;
        } else if (!mount_plan_take(*options, plan) && !mount_plan_keep(*options, plan)) {
            return EINVAL;
        }
        dev = dev || std::strcmp(*options, "dev") == 0;
        suid = suid || std::strcmp(*options, "suid") == 0;
    }
    if (!plan.bind && is_unspecified(type)) {
        if (!sourceExists)
            return ENOENT;
        plan.bind = true;
    }
    if (plan.mapped && !plan.bind)
        return EINVAL;
    if (plan.bind) {
        plan.attrSet |= (dev ? 0 : std::uint64_t{MOUNT_ATTR_NODEV}) |
                        (suid ? 0 : std::uint64_t{MOUNT_ATTR_NOSUID});
        plan.attrClear &= ~plan.attrSet | kAtime;
    } else {
        plan.type = type;
    }
    return 0;
}

} // namespace zn
