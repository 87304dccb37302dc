// ns_settings.cpp - see ns_settings.hpp.
#include "ns_settings.hpp"

#include "cgroup/cgroup_known.hpp"
#include "confinement.hpp"
#include "keeper_request.hpp"
#include "ns_kinds.hpp"
#include "settings/seccomp.hpp"
#include "settings/seccomp_listener.hpp"
#include "settings/settings_policy.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

int refuse(SettingsFault& fault, const char* field, const char* reason, int error)
{
    std::snprintf(fault.field, sizeof fault.field, "%s", field);
    std::snprintf(fault.reason, sizeof fault.reason, "%s", reason);
    return error;
}

int refuse_errno(SettingsFault& fault, const char* field, int error)
{
    return error == 0 ? 0 : refuse(fault, field, ::strerrordesc_np(error), error);
}

// The default filter depends on the capabilities only, and most containers have the same.
const SeccompCode* default_filter(std::uint64_t capabilities)
{
    static SeccompCode code;
    static std::uint64_t compiledFor = 0;
    if (!code.code.empty() && compiledFor == capabilities)
        return &code;
    SeccompCode fresh;
    if (seccomp_default(capabilities, fresh) != 0)
        return nullptr;
    code = std::move(fresh);
    compiledFor = capabilities;
    return &code;
}

// Whether a limit is given that a control group must enforce.
bool has_limits(const Resources& wanted)
{
    const bool io = wanted.ioWeight || !wanted.deviceWeights.empty() || !wanted.readBps.empty() ||
                    !wanted.writeBps.empty() || !wanted.readIops.empty() ||
                    !wanted.writeIops.empty();
    const bool cpu =
        wanted.cpuShares || wanted.cpuQuota || wanted.cpuPeriod || wanted.cpus || wanted.mems;
    const bool memory = wanted.memoryLimit || wanted.memoryReservation || wanted.memorySwap ||
                        wanted.memorySwappiness || wanted.disableOomKiller;
    return io || cpu || memory || wanted.pidsLimit || !wanted.hugepages.empty() ||
           !wanted.devices.empty();
}

// Writes the path of the group that a container has by default. The name is for people; the id
// makes it unique. Only these characters are copied; others would need escaping or have a meaning
// in paths.
int default_path(nsid_t id, const char* name, char (&path)[kCgroupPathMax])
{
    constexpr int kNameLength = 64;
    char plain[kNameLength + 1] = "";
    for (int i = 0; i < kNameLength && name[i] != '\0'; i++) {
        const char c = name[i];
        const bool known = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
        plain[i] = known ? c : '_';
    }
    return std::snprintf(path, sizeof path, "%s%s%s%08x", kDaemonGroup, plain,
                         plain[0] != '\0' ? "-" : "", static_cast<unsigned>(id));
}

// Creates a group with the limits that are given, and with the default limit of processes where the
// machine can enforce it.
int create_group(const char* path, Resources& wanted, const char** field)
{
    if (!wanted.pidsLimit) {
        wanted.pidsLimit = kDefaultPidsLimit;
        wanted.pidsLimitIsDefault = true;
    }
    return cgroup_create(path, wanted, field);
}

int make_device(Keeper& keeper, const UserNamespace& user, const Device& device)
{
    const auto uid = user.host_uid(device.uid);
    const auto gid = user.host_gid(device.gid);
    return uid && gid ? keeper_make_device(keeper, device, *uid, *gid) : EINVAL;
}

// A hard limit above that of this process cannot be given to programs.
int check_limits(const List<Rlimit>& limits, SettingsFault& fault)
{
    for (std::size_t i = 0; i < limits.size(); i++) {
        struct rlimit own = {};
        if (::getrlimit(static_cast<__rlimit_resource>(limits[i].resource), &own) != 0)
            return refuse_errno(fault, "process.rlimits", errno);
        if (limits[i].hard <= own.rlim_max)
            continue;
        const struct rlimit raised = {own.rlim_cur, limits[i].hard};
        char field[64];
        std::snprintf(field, sizeof field, "process.rlimits[%zu].hard", i);
        // Whether this process may raise the limit can only be found by trying; the old limit is
        // restored at once.
        if (::setrlimit(static_cast<__rlimit_resource>(limits[i].resource), &raised) != 0)
            return refuse(fault, field, "above the limit of the daemon, which may not raise it",
                          EPERM);
        ::setrlimit(static_cast<__rlimit_resource>(limits[i].resource), &own);
    }
    return 0;
}

} // namespace

NsChoice::From NamespaceSettings::from(NsKind kind) const
{
    return settings_.namespacesGiven ? choice(settings_, kind).from : NsChoice::From::kNew;
}

int NamespaceSettings::check(bool privileged, SettingsFault& fault) const
{
    if (!privileged && !settings_within_defaults(settings_, fault))
        return EPERM;
    if (from(NsKind::kMount) != NsChoice::From::kNew)
        return refuse(fault, "linux.namespaces", "a container needs a new mount namespace",
                      ENOTSUP);
    if (from(NsKind::kPid) != NsChoice::From::kNew)
        return refuse(fault, "linux.namespaces", "a container needs a new pid namespace", ENOTSUP);
    if (choice(settings_, NsKind::kUser).from == NsChoice::From::kPath)
        return refuse(fault, "linux.namespaces", "a user namespace cannot be given by path",
                      ENOTSUP);
    if (choice(settings_, NsKind::kTime).from != NsChoice::From::kHost)
        return refuse(fault, "linux.namespaces", "time namespaces are not supported", ENOTSUP);
    if ((settings_.rootPropagation.value_or(MS_PRIVATE) & MS_PRIVATE) == 0)
        return refuse(fault, "linux.rootfsPropagation", "only \"private\" is supported", ENOTSUP);
    if (const int error = labels_check(settings_, fault); error != 0)
        return error;
    if (has_label(settings_.mountLabel))
        return refuse(fault, "linux.mountLabel", "is not supported", ENOTSUP);
    for (const Device& device : settings_.devices)
        if (std::strncmp(device.path.get(), "/dev/", 5) != 0)
            return refuse(fault, "linux.devices", "a device must be below /dev", ENOTSUP);
    return check_limits(settings_.rlimits, fault);
}

int NamespaceSettings::take_filter(const SeccompCode& code)
{
    filterFlags_ = code.flags;
    return copy_filter(code.code, filter_);
}

int NamespaceSettings::compile_filter(SettingsFault& fault)
{
    SeccompCode code;
    if (!settings_.seccomp.given)
        return 0;
    const int error = seccomp_compile(settings_.seccomp, code, fault);
    return error != 0 ? error : take_filter(code);
}

int NamespaceSettings::use_default_filter()
{
    if (settings_.seccomp.given)
        return 0;
    const SeccompCode* code = default_filter(
        settings_.capabilities.given ? settings_.capabilities.bounding : kDefaultCapabilities);
    return code != nullptr ? take_filter(*code) : ENOMEM;
}

int NamespaceSettings::read(const char* document, bool privileged, SettingsFault& fault)
{
    int error = document != nullptr ? settings_read(document, settings_, fault) : 0;
    if (error == 0)
        error = seccomp_refuse_listener(settings_.seccomp, fault);
    if (error == 0)
        error = check(privileged, fault);
    if (error == 0)
        error = compile_filter(fault);
    unmasked_ = privileged && settings_.maskedPathsGiven;
    return error;
}

bool NamespaceSettings::wants_user() const
{
    return choice(settings_, NsKind::kUser).from == NsChoice::From::kNew;
}

bool NamespaceSettings::has_host_ids(std::uint32_t first, std::uint32_t count) const
{
    return maps_any(settings_.uidMappings, first, count) ||
           maps_any(settings_.gidMappings, first, count);
}

int NamespaceSettings::map_range(std::uint32_t first, std::uint32_t count)
{
    settings_.namespaces[static_cast<unsigned>(NsKind::kUser)].from = NsChoice::From::kNew;
    const IdMapping all = {0, first, count};
    return settings_.uidMappings.append(all) != nullptr &&
                   settings_.gidMappings.append(all) != nullptr
               ? 0
               : ENOMEM;
}

// The new namespaces to which capabilities in the user namespace apply.
unsigned long NamespaceSettings::user_owned() const
{
    unsigned long flags = 0;
    for (const Kind& kind : kKinds)
        if (wants_user() && is_new(kind.kind) && kind.kind != NsKind::kCgroup)
            flags |= kind.flag;
    return flags;
}

// Refuses user and group ids of programs that are not mapped in the user namespace.
int NamespaceSettings::check_ids(SettingsFault& fault) const
{
    constexpr char kUnmapped[] = "is not mapped in the user namespace";
    if (!user_.host_uid(0) || !user_.host_uid(settings_.user.uid))
        return refuse(fault, user_.host_uid(0) ? "process.user.uid" : "linux.uidMappings",
                      user_.host_uid(0) ? kUnmapped : "must contain 0", EINVAL);
    if (!user_.host_gid(0) || !user_.host_gid(settings_.user.gid))
        return refuse(fault, user_.host_gid(0) ? "process.user.gid" : "linux.gidMappings",
                      user_.host_gid(0) ? kUnmapped : "must contain 0", EINVAL);
    for (const std::uint32_t group : settings_.user.groups)
        if (!user_.host_gid(group))
            return refuse(fault, "process.user.additionalGids", kUnmapped, EINVAL);
    return 0;
}

int NamespaceSettings::make_user(SettingsFault& fault)
{
    if (!wants_user())
        return 0;
    const int error = user_.start(settings_.uidMappings, settings_.gidMappings, user_owned());
    return error != 0 ? refuse_errno(fault, "linux.namespaces: user", error) : check_ids(fault);
}

unsigned long NamespaceSettings::clone_flags() const
{
    unsigned long flags = CLONE_NEWPID;
    for (const Kind& kind : kKinds)
        if (is_new(kind.kind))
            flags |= kind.flag;
    return flags & ~user_owned();
}

int NamespaceSettings::make_group(nsid_t id, const char* name, bool (*taken)(const char* path),
                                  SettingsFault& fault)
{
    const bool given = settings_.cgroupsPath && settings_.cgroupsPath[0] != '\0';
    const KnownHierarchies known; // so that they are looked for once
    if (cgroup_version() == CgroupVersion::kNone)
        return given || has_limits(settings_.resources)
                   ? refuse(fault, given ? "linux.cgroupsPath" : "linux.resources",
                            "there are no control groups", ENOTSUP)
                   : 0;
    char path[kCgroupPathMax];
    const char* wanted = given ? settings_.cgroupsPath.get() : "";
    const int len = given ? std::snprintf(path, sizeof path, "%s%s",
                                          wanted[0] == '/' ? "" : kDaemonGroup, wanted)
                          : default_path(id, name, path);
    if (len < 0 || static_cast<std::size_t>(len) >= sizeof path)
        return refuse_errno(fault, "linux.cgroupsPath", ENAMETOOLONG);
    if (given && cgroup_contains(path, kDaemonGroup))
        return refuse(fault, "linux.cgroupsPath", "contains the groups of all containers", EINVAL);
    if (taken(path))
        return refuse(fault, "linux.cgroupsPath", "overlaps the group of another container", EBUSY);
    const char* limit = nullptr;
    const int error = create_group(path, settings_.resources, &limit);
    if (error != 0) {
        char field[64];
        std::snprintf(field, sizeof field, "linux.%s%s",
                      limit != nullptr ? "resources." : "cgroupsPath",
                      limit != nullptr ? limit : "");
        return refuse_errno(fault, field, error);
    }
    group_ = znc::copy_text(path);
    if (group_)
        return 0;
    cgroup_remove(path);
    return refuse_errno(fault, "linux.cgroupsPath", ENOMEM);
}

int NamespaceSettings::adopt(const char* group, pid_t holder, UniqueFd pidfd, UniqueFd alive)
{
    group_ = znc::copy_text(group);
    if (!group_)
        return ENOMEM;
    if (!pidfd)
        return 0;
    int error = mappings_read(holder, "uid_map", settings_.uidMappings);
    if (error == 0)
        error = mappings_read(holder, "gid_map", settings_.gidMappings);
    user_.adopt(holder, std::move(pidfd), std::move(alive), settings_.uidMappings,
                settings_.gidMappings);
    return error;
}

int NamespaceSettings::prepare(Keeper& keeper, SettingsFault& fault) const
{
    for (const Kind& kind : kKinds) {
        if (from(kind.kind) != NsChoice::From::kPath)
            continue;
        const char* path = choice(settings_, kind.kind).path.get();
        const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
        const int error = file ? join(keeper, file.get(), kind.flag) : errno;
        char field[64];
        std::snprintf(field, sizeof field, "linux.namespaces: %s", kind.name);
        if (error != 0)
            return refuse_errno(fault, field, error);
    }
    if (!user_)
        return 0;
    int error = user_owned() != 0 ? join(keeper, user_.pidfd(), user_owned()) : 0;
    wire::Request owner = {};
    owner.op = wire::Op::kOwner;
    owner.node.uid = *user_.host_uid(0);
    owner.node.gid = *user_.host_gid(0);
    if (error == 0)
        error = keeper.ask(owner, {}, -1);
    return refuse_errno(fault, "linux.namespaces: user", error);
}

int NamespaceSettings::join(Keeper& keeper, int descriptor, unsigned long kinds) const
{
    wire::Request request = {};
    request.op = wire::Op::kJoin;
    request.value = kinds;
    return keeper.ask(request, {}, descriptor);
}

std::uint32_t NamespaceSettings::terminal_group() const
{
    constexpr std::uint32_t kTty = 5;
    return user_.host_gid(kTty).value_or(*user_.host_gid(0));
}

const char* NamespaceSettings::host_name(const char* name) const
{
    if (!is_new(NsKind::kUts))
        return "";
    return settings_.hostname && settings_.hostname[0] != '\0' ? settings_.hostname.get() : name;
}

std::uint64_t NamespaceSettings::root_bits() const
{
    return unmasked_ ? wire::kRootUnmasked : 0;
}

int NamespaceSettings::seal(Keeper& keeper, SettingsFault& fault) const
{
    for (const Device& device : settings_.devices)
        if (const int error = make_device(keeper, user_, device); error != 0)
            return refuse_errno(fault, "linux.devices", error);
    for (const Sysctl& parameter : settings_.sysctl)
        if (const int error = keeper_set_parameter(keeper, parameter); error != 0)
            return refuse_errno(fault, "linux.sysctl", error);
    for (const Text& path : settings_.readonlyPaths)
        if (const int error = keeper_tell(keeper, wire::Op::kReadOnly, path.get()); error != 0)
            return refuse_errno(fault, "linux.readonlyPaths", error);
    for (const Text& path : settings_.maskedPaths)
        if (const int error = keeper_tell(keeper, wire::Op::kHide, path.get()); error != 0)
            return refuse_errno(fault, "linux.maskedPaths", error);
    if (settings_.rootReadonly)
        return refuse_errno(fault, "root.readonly", keeper_tell(keeper, wire::Op::kReadOnly, "/"));
    return 0;
}

} // namespace zn
