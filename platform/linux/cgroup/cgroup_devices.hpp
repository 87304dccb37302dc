// cgroup_devices.hpp - which devices the processes of a group may open and create. Called by
// cgroup_limits.cpp through devices_apply(); the rest is separate for tests.
//
// A list of rules is read from its beginning, starting with nothing allowed: of the rules that
// match a device and one of the accesses read, write and mknod, the last one decides. On v1,
// opening a device to read and write is refused if one rule for all minor numbers allows reading
// and another one for all major numbers allows writing.
#ifndef ZN_CGROUP_DEVICES_HPP
#define ZN_CGROUP_DEVICES_HPP

#include "settings/settings.hpp"

#include <linux/bpf.h>
#include <span>

namespace zn {

inline constexpr std::size_t kDeviceRulesMax = 256;

// Compiles rules to the code that the kernel runs on v2 for each access. 0, E2BIG or ENOMEM.
int device_code(std::span<const DeviceRule> rules, List<bpf_insn>& code);

// The state of a v1 group: whether all devices are allowed or denied, and the exceptions.
struct DeviceList {
    bool allowAll = false;
    List<DeviceRule> exceptions; // `allow` is not used
};

// Translates rules. ENOTSUP if v1 cannot express them: a v1 exception cannot be narrowed by another
// one. E2BIG, ENOMEM.
int device_list(std::span<const DeviceRule> rules, DeviceList& list);

} // namespace zn

#endif
