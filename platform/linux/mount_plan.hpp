// mount_plan.hpp - a configured mount turned into what the kernel is asked for: bind or filesystem,
// flags, propagation, and what is left for the filesystem. Pure text work, used by the namespace
// service.
#ifndef ZN_MOUNT_PLAN_HPP
#define ZN_MOUNT_PLAN_HPP

#include <cstddef>
#include <cstdint>

namespace zn {

struct MountPlan {
    bool bind = false;
    bool recursive = false;
    std::uint64_t attrSet = 0;     // MOUNT_ATTR_ bits to set
    std::uint64_t attrClear = 0;   // and to clear first
    std::uint64_t propagation = 0; // MS_ bits
    const char* type = nullptr;    // filesystem type, when it is no bind
    char options[2048] = {};       // for the filesystem: "key" or "key=value", NUL after each
    std::size_t optionsLen = 0;
    unsigned optionCount = 0;
};

// `sourceExists` tells whether the source is there on the host; it decides for types that say
// nothing. 0, or an error number: ENOENT (no type and no source), EINVAL (options too long).
int mount_plan_make(const char* type, const char* const* options, bool sourceExists,
                    MountPlan& plan);

} // namespace zn

#endif
