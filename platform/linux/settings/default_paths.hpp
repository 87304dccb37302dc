// default_paths.hpp - the parts of procfs and sysfs, which are not namespaced, that containers
// cannot see or cannot write by default. Masked by keeper_mask.cpp of the helper program, which has
// no C library. A configuration can add paths to these (settings_policy.hpp).
#ifndef ZN_DEFAULT_PATHS_HPP
#define ZN_DEFAULT_PATHS_HPP

namespace zn {

// Relative to /proc.
inline constexpr char kProcMasked[][16] = {
    "acpi",        "asound",      "dynamic_debug", "interrupts", "kcore",
    "keys",        "kpagecgroup", "kpagecount",    "kpageflags", "latency_stats",
    "sched_debug", "scsi",        "timer_list",    "timer_stats"};
inline constexpr char kProcReadOnly[][16] = {"bus", "fs", "irq", "sys", "sysrq-trigger"};

// Relative to /sys. Not listed: the thermal counters of each processor.
inline constexpr char kSysMasked[][32] = {"devices/virtual/powercap", "firmware", "fs/selinux"};

} // namespace zn

#endif
