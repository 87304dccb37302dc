// mount_plan.hpp - translates a mount of a configuration into parameters for the kernel: bind or
// file system type, attributes, propagation, and options for the file system. Makes no system
// calls. Used by the namespace service and by engines'
// containers.
#ifndef ZN_MOUNT_PLAN_HPP
#define ZN_MOUNT_PLAN_HPP

#include <cstddef>
#include <cstdint>

namespace zn {

struct MountPlan {
    bool bind = false;
    bool recursive = false;
    bool mapped = false;           // owners as in the user namespace of the container
    std::uint64_t attrSet = 0;     // MOUNT_ATTR_ bits to set
    std::uint64_t attrClear = 0;   // and to clear before that
    std::uint64_t propagation = 0; // MS_ bits
    const char* type = nullptr;    // file system type; null for a bind
    char options[2048] = {};       // for the filesystem: "key" or "key=value", NUL after each
    std::size_t optionsLen = 0;
    unsigned optionCount = 0;
};

// `sourceExists`: whether the source exists on the host; needed for types that do not decide
// between bind and file system. 0, or an error number: ENOENT (neither a type nor an existing
// source), EINVAL (options too long, or an option that only binds have).
int mount_plan_make(const char* type, const char* const* options, bool sourceExists,
                    MountPlan& plan);

// Parts of it, for other users: takes an option that is a mount flag or a propagation; keeps one
// for the file system. False if it is none, or if there is no room.
bool mount_plan_take(const char* option, MountPlan& plan);
bool mount_plan_keep(const char* option, MountPlan& plan);

} // namespace zn

#endif
