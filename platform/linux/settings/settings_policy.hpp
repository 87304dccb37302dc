// settings_policy.hpp - which settings give a container more than it has by default, and therefore
// need znnsPrivilegedAllow. Called by the namespace service.
#ifndef ZN_SETTINGS_POLICY_HPP
#define ZN_SETTINGS_POLICY_HPP

#include "settings.hpp"
#include "settings_reader.hpp"

namespace zn {

// The capabilities that containers have by default.
inline constexpr std::uint64_t kDefaultCapabilities =
    1U << 0 /* CHOWN */ | 1U << 1 /* DAC_OVERRIDE */ | 1U << 3 /* FOWNER */ | 1U << 4 /* FSETID */ |
    1U << 5 /* KILL */ | 1U << 6 /* SETGID */ | 1U << 7 /* SETUID */ | 1U << 8 /* SETPCAP */ |
    1U << 10 /* NET_BIND_SERVICE */ | 1U << 18 /* SYS_CHROOT */ | 1U << 31 /* SETFCAP */;

// How many processes and threads containers may have by default.
inline constexpr std::int64_t kDefaultPidsLimit = 4096;

// The control groups of the daemon's containers are below this one.
inline constexpr char kDaemonGroup[] = "/zarnel/";

// Whether the settings stay within the defaults. If not, `fault` names the first field that exceeds
// them: a shared or existing namespace, a capability beyond kDefaultCapabilities, noNewPrivileges
// false, a device node or device rule beyond the default ones, a filter that by default allows
// system calls or lets a tracer allow them, negative OOM scores, limits that permit real-time
// scheduling, negative nice values or more than half of the memory of message queues, more than
// kDefaultPidsLimit processes, control files by name, a control group path outside kDaemonGroup, a
// root that shares mounts with the host. The rules of a filter are not compared with the default
// filter. Masked and read-only paths are not checked: within the defaults they are added to the
// default ones (default_paths.hpp).
bool settings_within_defaults(const Settings& settings, SettingsFault& fault);

} // namespace zn

#endif
