// overlay_stack.hpp - the record of a read-only overlay device: its directories, the first on top,
// in a file in the directory that the device is mounted on. The mount hides the file. Used by the
// overlay devices only, which hold their lock.
#ifndef ZN_OVERLAY_STACK_HPP
#define ZN_OVERLAY_STACK_HPP

#include "base/owned.hpp"

#include <cstdint>

namespace zn {

// Writes the record in the unmounted directory `node`. False with errno set.
bool stack_write(int node, const char* const* dirs, std::uint32_t count);
void stack_remove(int node);

// NUL-terminated strings followed by an empty one.
struct StackText {
    znc::MallocPtr<char[]> text; // null on failure with errno set; ENOENT if the record does not
                                 // exist or is incomplete
    std::size_t len = 0;

    [[nodiscard]] const char* first() const { return text.get(); }
    // The string after `dir`, or null.
    [[nodiscard]] const char* next(const char* dir) const;
};
StackText stack_read(int node);

// The directory `name` below the mount of an existing device. Invalid with errno set.
znc::UniqueFd stack_node(int devices, const char* name);

} // namespace zn

#endif
