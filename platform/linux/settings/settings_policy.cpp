#include "settings_policy.hpp"

#include "default_paths.hpp"

#include <cstdarg>
#include <cstdio>
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
        // By default, containers share these two with the host.
        const bool optional = kind == static_cast<unsigned>(NsKind::kUser) ||
                              kind == static_cast<unsigned>(NsKind::kTime);
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
            return exceeds(fault, set.field, "contains a capability that containers do not have");
    return settings.noNewPrivileges.value_or(true) ||
           exceeds(fault, "process.noNewPrivileges",
                   "lets programs gain privileges from set-user-ID files");
}

bool priorities_within(const Settings& settings, SettingsFault& fault)
{
    constexpr std::uint64_t kNiceOfZero = 20; // RLIMIT_NICE permits nice values from 20 - limit on
    if (settings.oomScoreAdj.value_or(0) < 0)
        return exceeds(fault, "process.oomScoreAdj", "is negative");
    for (std::size_t i = 0; i < settings.rlimits.size(); i++) {
        const Rlimit& rlimit = settings.rlimits[i];
        if (rlimit.resource == RLIMIT_RTPRIO && rlimit.hard > 0)
            return exceeds_at(fault, "process.rlimits", i, "permits real-time scheduling");
        if (rlimit.resource == RLIMIT_NICE && rlimit.hard > kNiceOfZero)
            return exceeds_at(fault, "process.rlimits", i, "permits negative nice values");
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

// Whether one of the paths is `wanted` or a directory above it.
bool is_covered(const List<Text>& paths, std::string_view wanted)
{
    for (const Text& text : paths) {
        std::string_view path = text.get();
        while (path.size() > 1 && path.back() == '/')
            path.remove_suffix(1);
        if (wanted == path ||
            (wanted.substr(0, path.size()) == path && (path == "/" || wanted[path.size()] == '/')))
            return true;
    }
    return false;
}

template <std::size_t kCount, std::size_t kSize>
bool all_covered(const Settings& settings, bool readOnly, const char* top,
                 const char (&names)[kCount][kSize], SettingsFault& fault)
{
    for (const char* const name : names) {
        char wanted[256];
        (void)std::snprintf(wanted, sizeof wanted, "%s/%s", top, name);
        if (is_covered(settings.maskedPaths, wanted) ||
            (readOnly && is_covered(settings.readonlyPaths, wanted)))
            continue;
        return exceeds(fault, readOnly ? "linux.readonlyPaths" : "linux.maskedPaths",
                       "leaves out %s", wanted);
    }
    return true;
}

bool paths_within(const Settings& settings, SettingsFault& fault)
{
    if (settings.maskedPathsGiven && (!all_covered(settings, false, "/proc", kProcMasked, fault) ||
                                      !all_covered(settings, false, "/sys", kSysMasked, fault)))
        return false;
    return !settings.readonlyPathsGiven ||
           all_covered(settings, true, "/proc", kProcReadOnly, fault);
}

bool filter_within(const Settings& settings, SettingsFault& fault)
{
    if (!settings.seccomp.given)
        return true;
    const SeccompAction action = settings.seccomp.fallback.action;
    if (action == SeccompAction::kAllow || action == SeccompAction::kLog)
        return exceeds(fault, "linux.seccomp.defaultAction",
                       "allows all system calls that no rule refuses");
    // A program of the container may be the tracer.
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
           exceeds(fault, "linux.rootfsPropagation", "exchanges mounts with the host");
}

} // namespace

bool settings_within_defaults(const Settings& settings, SettingsFault& fault)
{
    return namespaces_within(settings, fault) && capabilities_within(settings, fault) &&
           priorities_within(settings, fault) && devices_within(settings, fault) &&
           paths_within(settings, fault) && filter_within(settings, fault) &&
           group_within(settings, fault) && propagation_within(settings, fault);
}

} // namespace zn
