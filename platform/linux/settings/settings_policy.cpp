#include "settings_policy.hpp"

#include <cstdarg>
#include <cstdio>
#include <linux/mqueue.h>
#include <sys/mount.h>
#include <sys/resource.h>

namespace zn {
namespace {

constexpr const char* kNsNames[kNsKinds] = {"mount",  "pid",     "ipc",  "uts",
                                            "cgroup", "network", "user", "time"};

struct DeviceNumber {
    std::int64_t major;
    std::int64_t minor;
};
// The character devices in /dev: null, zero, full, random, urandom, tty, ptmx.
constexpr DeviceNumber kDefaultDevices[] = {{1, 3}, {1, 5}, {1, 7}, {1, 8}, {1, 9}, {5, 0}, {5, 2}};
constexpr std::int64_t kTerminalMajor = 136; // of pseudo-terminals, all minor numbers

// False, with the fault filled in. The field may contain a path of the document.
bool exceeds(SettingsFault& fault, const char* field, const char* reason, ...)
    __attribute__((format(printf, 3, 4)));
bool exceeds(SettingsFault& fault, const char* field, const char* reason, ...)
{
    (void)std::snprintf(fault.field, sizeof fault.field, "%s", field);
    va_list values;
    va_start(values, reason);
    (void)std::vsnprintf(fault.reason, sizeof fault.reason, reason, values);
    va_end(values);
    return false;
}

bool exceeds_at(SettingsFault& fault, const char* list, std::size_t index, const char* reason)
{
    char field[sizeof fault.field];
    (void)std::snprintf(field, sizeof field, "%s[%zu]", list, index);
    return exceeds(fault, field, "%s", reason);
}

bool namespaces_within(const Settings& settings, SettingsFault& fault)
{
    if (!settings.namespacesGiven)
        return true;
    for (unsigned kind = 0; kind < kNsKinds; kind++) {
        const NsChoice::From from = settings.namespaces[kind].from;
        // By default, containers share the first two with the host. Sharing the cgroup namespace
        // only shows the host's path of the container's group.
        const bool optional = kind == static_cast<unsigned>(NsKind::kUser) ||
                              kind == static_cast<unsigned>(NsKind::kTime) ||
                              kind == static_cast<unsigned>(NsKind::kCgroup);
        if (from == NsChoice::From::kPath)
            return exceeds(fault, "linux.namespaces", "joins an existing %s namespace",
                           kNsNames[kind]);
        if (from == NsChoice::From::kHost && !optional)
            return exceeds(fault, "linux.namespaces", "shares the %s namespace of the host",
                           kNsNames[kind]);
    }
    return true;
}

bool capabilities_within(const Settings& settings, SettingsFault& fault)
{
    struct Set {
        const char* field;
        std::uint64_t bits;
    };
    const Capabilities& given = settings.capabilities;
    for (const Set& set : {Set{"process.capabilities.bounding", given.bounding},
                           Set{"process.capabilities.effective", given.effective},
                           Set{"process.capabilities.permitted", given.permitted},
                           Set{"process.capabilities.inheritable", given.inheritable},
                           Set{"process.capabilities.ambient", given.ambient}})
        if ((set.bits & ~kDefaultCapabilities) != 0)
            return exceeds(fault, set.field,
                           "contains a capability that containers do not have by default");
    return settings.noNewPrivileges.value_or(true) ||
           exceeds(fault, "process.noNewPrivileges",
                   "lets programs gain privileges from set-user-ID files");
}

bool priorities_within(const Settings& settings, SettingsFault& fault)
{
    constexpr std::uint64_t kQueueMemory =
        MQ_BYTES_MAX / 2;                     // the rest is the daemon's and clients'
    constexpr std::uint64_t kNiceOfZero = 20; // RLIMIT_NICE permits nice values from 20 - limit on
    if (settings.oomScoreAdj.value_or(0) < 0)
        return exceeds(fault, "process.oomScoreAdj", "is negative");
    for (std::size_t i = 0; i < settings.rlimits.size(); i++) {
        const Rlimit& rlimit = settings.rlimits[i];
        if (rlimit.resource == RLIMIT_RTPRIO && rlimit.hard > 0)
            return exceeds_at(fault, "process.rlimits", i, "permits real-time scheduling");
        if (rlimit.resource == RLIMIT_NICE && rlimit.hard > kNiceOfZero)
            return exceeds_at(fault, "process.rlimits", i, "permits negative nice values");
        if (rlimit.resource == RLIMIT_MSGQUEUE && rlimit.hard > kQueueMemory)
            return exceeds_at(fault, "process.rlimits", i,
                              "permits more than half of the POSIX message queue memory");
    }
    return true;
}

bool is_default_device(std::int64_t major, std::int64_t minor)
{
    for (const DeviceNumber& device : kDefaultDevices)
        if (device.major == major && device.minor == minor)
            return true;
    return false;
}

bool devices_within(const Settings& settings, SettingsFault& fault)
{
    for (std::size_t i = 0; i < settings.devices.size(); i++) {
        const Device& device = settings.devices[i];
        if (device.type != 'p' &&
            (device.type != 'c' || !is_default_device(device.major, device.minor)))
            return exceeds_at(fault, "linux.devices", i, "is not one of the default devices");
    }
    const List<DeviceRule>& rules = settings.resources.devices;
    for (std::size_t i = 0; i < rules.size(); i++) {
        const DeviceRule& rule = rules[i];
        const bool known = rule.type == 'c' && (rule.major == kTerminalMajor ||
                                                is_default_device(rule.major, rule.minor));
        if (rule.allow && !known)
            return exceeds_at(fault, "linux.resources.devices", i,
                              "allows more than the default devices");
    }
    return true;
}

bool filter_within(const Settings& settings, SettingsFault& fault)
{
    if (!settings.seccomp.given)
        return true;
    const SeccompAction action = settings.seccomp.fallback.action;
    if (action == SeccompAction::kAllow || action == SeccompAction::kLog)
        return exceeds(fault, "linux.seccomp.defaultAction",
                       "allows all system calls that no rule refuses");
    // SCMP_ACT_TRACE: the tracer may be a program in the container and allow everything.
    return action != SeccompAction::kTrace ||
           exceeds(fault, "linux.seccomp.defaultAction", "lets a tracer allow all system calls");
}

bool group_within(const Settings& settings, SettingsFault& fault)
{
    const std::string_view prefix = kDaemonGroup;
    const std::string_view path = settings.cgroupsPath ? settings.cgroupsPath.get() : "";
    // A relative path is below kDaemonGroup, unless it is of the form "slice:prefix:name".
    if ((!path.empty() && path[0] == '/' && path.substr(0, prefix.size()) != prefix) ||
        path.find(':') != std::string_view::npos)
        return exceeds(fault, "linux.cgroupsPath", "is not below %s", kDaemonGroup);
    if (!settings.resources.unified.empty())
        return exceeds(fault, "linux.resources.unified", "may raise any limit of the group");
    const std::int64_t pids = settings.resources.pidsLimit.value_or(kDefaultPidsLimit);
    if (pids < 0 || pids > kDefaultPidsLimit)
        return exceeds(fault, "linux.resources.pids.limit", "is higher than %lld",
                       static_cast<long long>(kDefaultPidsLimit));
    return true;
}

bool propagation_within(const Settings& settings, SettingsFault& fault)
{
    const std::uint64_t kind =
        settings.rootPropagation.value_or(MS_PRIVATE) & ~std::uint64_t{MS_REC};
    return kind == MS_PRIVATE || kind == MS_UNBINDABLE ||
           exceeds(fault, "linux.rootfsPropagation",
                   "propagates mounts between container and host");
}

} // namespace

bool settings_within_defaults(const Settings& settings, SettingsFault& fault)
{
    return namespaces_within(settings, fault) && capabilities_within(settings, fault) &&
           priorities_within(settings, fault) && devices_within(settings, fault) &&
           filter_within(settings, fault) && group_within(settings, fault) &&
           propagation_within(settings, fault);
}

} // namespace zn
