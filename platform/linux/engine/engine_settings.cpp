#include "engine_settings.hpp"

#include "base/file.hpp"
#include "cgroup/cgroup.hpp"
#include "confinement.hpp"
#include "ns_kinds.hpp"
#include "ns_user.hpp"
#include "settings/seccomp.hpp"
#include "zarnel/engine.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

namespace zn {

const EngineNamespace kEngineNamespace[kEngineNamespaces] = {
    {NsKind::kIpc, CLONE_NEWIPC, "ipc"},
    {NsKind::kUts, CLONE_NEWUTS, "uts"},
    {NsKind::kCgroup, CLONE_NEWCGROUP, "cgroup"},
    {NsKind::kNetwork, CLONE_NEWNET, "network"},
    {NsKind::kTime, CLONE_NEWTIME, "time"}};

namespace {

using znc::UniqueFd;

int refuse(SettingsFault& fault, const char* field, const char* reason)
{
    std::snprintf(fault.field, sizeof fault.field, "%s", field);
    std::snprintf(fault.reason, sizeof fault.reason, "%s", reason);
    return ENOTSUP;
}

// Devices that every container has, and pseudo-terminals. All device nodes may be created, but not
// used.
constexpr struct {
    char type;
    std::int64_t major;
    std::int64_t minor;
    bool use;
} kDeviceRules[] = {
    {'c', kAnyDevice, kAnyDevice, false},
    {'b', kAnyDevice, kAnyDevice, false},
    {'c', 1, 3, true},
    {'c', 1, 5, true},
    {'c', 1, 7, true},
    {'c', 1, 8, true},
    {'c', 1, 9, true},
    {'c', 5, 0, true},
    {'c', 5, 2, true},
    {'c', 136, kAnyDevice, true},
};

} // namespace

NsChoice::From EngineSettings::from(NsKind kind) const
{
    return settings_.namespaces[static_cast<unsigned>(kind)].from;
}

const char* EngineSettings::path(NsKind kind) const
{
    return settings_.namespaces[static_cast<unsigned>(kind)].path.get();
}

int EngineSettings::check(SettingsFault& fault) const
{
    if (from(NsKind::kUser) == NsChoice::From::kNew) {
        if (!mapped_id(settings_.uidMappings, 0))
            return refuse(fault, "linux.uidMappings", "the container's user 0 must be mapped");
        if (!mapped_id(settings_.gidMappings, 0))
            return refuse(fault, "linux.gidMappings", "the container's group 0 must be mapped");
    }
    return labels_check(settings_, fault);
}

namespace {

bool setgroups_denied()
{
    char word[8] = "";
    const UniqueFd file(::open("/proc/self/setgroups", O_RDONLY | O_CLOEXEC));
    return file && ::read(file.get(), word, sizeof word) >= 4 && std::strncmp(word, "deny", 4) == 0;
}

int check_mapped(const char* field, const char* file, std::uint32_t id, SettingsFault& fault)
{
    List<IdMapping> map;
    if (const int error = mappings_read(::getpid(), file, map); error != 0)
        return error;
    return mapped_id(map, id) ? 0 : refuse(fault, field, "is not mapped in the user namespace");
}

} // namespace

int EngineSettings::check_rootless(SettingsFault& fault)
{
    keepsGroups_ = setgroups_denied();
    if (keepsGroups_ && !settings_.user.groups.empty())
        return refuse(fault, "process.user.additionalGids",
                      "the user namespace of the caller denies setgroups");
    for (std::size_t i = 0; i < settings_.rlimits.size(); i++) {
        const Rlimit& limit = settings_.rlimits[i];
        struct rlimit now = {};
        if (::getrlimit(static_cast<__rlimit_resource>(limit.resource), &now) == 0 &&
            limit.hard > now.rlim_max) {
            std::snprintf(fault.field, sizeof fault.field, "process.rlimits[%zu].hard", i);
            std::snprintf(fault.reason, sizeof fault.reason,
                          "above the hard limit of the caller, %llu",
                          static_cast<unsigned long long>(now.rlim_max));
            return EPERM;
        }
    }
    if (hasUsers_)
        return 0;
    int error = check_mapped("process.user.uid", "uid_map", settings_.user.uid, fault);
    if (error == 0)
        error = check_mapped("process.user.gid", "gid_map", settings_.user.gid, fault);
    for (const std::uint32_t group : settings_.user.groups)
        if (error == 0)
            error = check_mapped("process.user.additionalGids", "gid_map", group, fault);
    return error;
}

int EngineSettings::read(const char* document, SettingsFault& fault)
{
    int error = settings_read(document, settings_, fault);
    hasUsers_ = from(NsKind::kUser) != NsChoice::From::kHost;
    isRootless_ = znEngineRootless() != FALSE;
    if (error == 0)
        error = check(fault);
    if (error == 0 && isRootless_)
        error = check_rootless(fault);
    if (error != 0 || !settings_.seccomp.given)
        return error;
    SeccompCode code;
    settings_.seccomp.newerAreAbsent = true;
    error = seccomp_compile(settings_.seccomp, code, fault);
    if (error == 0)
        error = copy_filter(code.code, filter_);
    filterFlags_ = code.flags;
    return error;
}

// Rooted at the group that its maker is in.
constexpr auto kMadeLater = static_cast<unsigned long>(CLONE_NEWCGROUP);

unsigned long EngineSettings::new_namespaces() const
{
    unsigned long flags = from(NsKind::kPid) == NsChoice::From::kNew ? CLONE_NEWPID : 0;
    for (const EngineNamespace& one : kEngineNamespace)
        if (from(one.kind) == NsChoice::From::kNew)
            flags |= one.flag;
    return flags;
}

unsigned long EngineSettings::clone_flags() const
{
    return CLONE_NEWNS | (created_flags() != 0 ? 0 : new_namespaces() & ~kMadeLater);
}

unsigned long EngineSettings::created_flags() const
{
    // A second process must be created even if no further namespace is new. CLONE_PARENT, which is
    // not a namespace flag, makes the result nonzero in that case.
    constexpr unsigned long kNone = CLONE_PARENT;
    const unsigned long flags = new_namespaces();
    const bool second = createsInGroup_ || hasUsers_ || (flags & CLONE_NEWTIME) != 0 ||
                        from(NsKind::kPid) == NsChoice::From::kPath;
    return second ? (flags & ~kMadeLater) | kNone : 0;
}

int EngineSettings::set_users(const List<IdMapping>& uids)
{
    hasUsers_ = true;
    settings_.uidMappings = {};
    for (const IdMapping& one : uids)
        if (settings_.uidMappings.append(one) == nullptr)
            return ENOMEM;
    return 0;
}

int EngineSettings::complete_devices()
{
    return devices_complete(settings_.resources.devices);
}

int devices_complete(List<DeviceRule>& rules)
{
    // The last rule that matches decides, so that these come after those of the configuration,
    // except for the one that denies all others by default.
    List<DeviceRule> all;
    if (rules.empty() && all.append(DeviceRule{}) == nullptr)
        return ENOMEM;
    for (const DeviceRule& rule : rules)
        if (all.append(rule) == nullptr)
            return ENOMEM;
    for (const auto& one : kDeviceRules)
        if (all.append({true, one.type, one.major, one.minor, one.use, one.use, true}) == nullptr)
            return ENOMEM;
    rules = std::move(all);
    return 0;
}

UniqueFd EngineSettings::record(const char* group, unsigned long join, bool placed) const
{
    List<Text> entries;
    if (*group != '\0') {
        errno = cgroup_entries(group, entries);
        if (errno != 0)
            return UniqueFd();
    }
    return record(std::move(entries), join, placed);
}

UniqueFd EngineSettings::record(List<Text> entries, unsigned long join, bool placed) const
{
    wire::Confinement rules = {};
    rules.namespaces =
        join == 0 && from(NsKind::kPid) == NsChoice::From::kPath ? CLONE_NEWPID : join;
    rules.user = hasUsers_ ? 1 : 0;
    rules.placed = placed ? 1 : 0;
    rules.created = join == 0 ? created_flags() : 0;
    rules.ownControlGroup = join == 0 && from(NsKind::kCgroup) == NsChoice::From::kNew ? 1 : 0;
    rules.ownNetwork = join == 0 && from(NsKind::kNetwork) == NsChoice::From::kNew ? 1 : 0;
    rules.filterFlags = filterFlags_;
    rules.keepGroups = keepsGroups_ ? 1 : 0;
    rules.keepScore = isRootless_ ? 1 : 0;
    rules.noNewPrivileges = settings_.noNewPrivileges.value_or(false) ? 1 : 0;
    std::size_t size = 0;
    const auto packed = confinement_pack(rules, settings_, filter_.all(), std::move(entries), size);
    UniqueFd file(packed ? ::memfd_create("zn-record", MFD_CLOEXEC) : -1);
    const char zeros[wire::kConfinementOffset] = {};
    if (!file || !znc::write_all(file.get(), {zeros, sizeof zeros}) ||
        !znc::write_all(file.get(), {packed.get(), size}))
        return UniqueFd();
    return file;
}

} // namespace zn
