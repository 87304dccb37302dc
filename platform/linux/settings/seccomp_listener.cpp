#include "seccomp_listener.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>

namespace zn {
namespace {

constexpr char kDefault[] = "linux.seccomp.defaultAction";
constexpr char kPath[] = "linux.seccomp.listenerPath";
constexpr char kMetadata[] = "linux.seccomp.listenerMetadata";

int refuse(SettingsFault& fault, int error, const char* field, const char* reason)
{
    std::snprintf(fault.field, sizeof fault.field, "%s", field);
    std::snprintf(fault.reason, sizeof fault.reason, "%s", reason);
    return error;
}

int refuse_action(SettingsFault& fault, int error, std::size_t rule, const char* reason)
{
    char field[sizeof fault.field];
    std::snprintf(field, sizeof field, "linux.seccomp.syscalls[%zu].action", rule);
    return refuse(fault, error, field, reason);
}

bool is_notify(const SeccompRule& rule)
{
    return rule.answer.action == SeccompAction::kNotify;
}

bool names_write(const SeccompRule& rule)
{
    return std::any_of(rule.names.begin(), rule.names.end(),
                       [](const Text& name) { return std::string_view(name.get()) == "write"; });
}

bool has_path(const SeccompProfile& profile)
{
    return profile.listenerPath && *profile.listenerPath.get() != '\0';
}

} // namespace

bool seccomp_notifies(const SeccompProfile& profile)
{
    return profile.fallback.action == SeccompAction::kNotify ||
           std::any_of(profile.rules.begin(), profile.rules.end(), is_notify);
}

int seccomp_check_listener(const SeccompProfile& profile, SettingsFault& fault)
{
    if (profile.hasMetadata && !has_path(profile))
        return refuse(fault, EINVAL, kMetadata, "needs listenerPath");
    if (profile.fallback.action == SeccompAction::kNotify)
        return refuse(fault, EINVAL, kDefault, "SCMP_ACT_NOTIFY cannot be the default action");
    for (std::size_t i = 0; i < profile.rules.size(); i++)
        if (is_notify(profile.rules[i]) && names_write(profile.rules[i]))
            return refuse_action(fault, EINVAL, i,
                                 "SCMP_ACT_NOTIFY cannot be used for the write syscall");
    if (!seccomp_notifies(profile))
        return 0;
    if (!has_path(profile))
        return refuse(fault, EINVAL, kPath, "SCMP_ACT_NOTIFY needs it");
    return *profile.listenerPath.get() == '/'
               ? 0
               : refuse(fault, EINVAL, kPath, "not an absolute path");
}

int seccomp_refuse_listener(const SeccompProfile& profile, SettingsFault& fault)
{
    constexpr char kAction[] = "SCMP_ACT_NOTIFY is not supported";
    constexpr char kMember[] = "is not supported";
    if (profile.fallback.action == SeccompAction::kNotify)
        return refuse(fault, ENOTSUP, kDefault, kAction);
    if (has_path(profile))
        return refuse(fault, ENOTSUP, kPath, kMember);
    if (profile.hasMetadata)
        return refuse(fault, ENOTSUP, kMetadata, kMember);
    for (std::size_t i = 0; i < profile.rules.size(); i++)
        if (is_notify(profile.rules[i]))
            return refuse_action(fault, ENOTSUP, i, kAction);
    return 0;
}

} // namespace zn
