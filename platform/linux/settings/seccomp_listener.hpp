// seccomp_listener.hpp - the rules of profiles whose calls another program decides about
// (SCMP_ACT_NOTIFY): it receives the descriptor of the filter through the socket "listenerPath".
#ifndef ZN_SECCOMP_LISTENER_HPP
#define ZN_SECCOMP_LISTENER_HPP

#include "settings.hpp"
#include "settings_reader.hpp"

namespace zn {

// Whether a rule or the default action of the profile is SCMP_ACT_NOTIFY.
bool seccomp_notifies(const SeccompProfile& profile);

// 0, or EINVAL with `fault` set: the default action cannot be SCMP_ACT_NOTIFY, nor that of write(),
// by which a process reports that it has the filter; a profile with the action needs a path, and
// listenerMetadata is for profiles with a path.
int seccomp_check_listener(const SeccompProfile& profile, SettingsFault& fault);

// For containers that cannot have a listener. 0, or ENOTSUP with `fault` set.
int seccomp_refuse_listener(const SeccompProfile& profile, SettingsFault& fault);

} // namespace zn

#endif
