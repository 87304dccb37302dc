// overlay_stack.hpp - the record of a read-only overlay device: its layer directories, topmost
// first, in a file in the directory that the device is mounted on. The mount hides the file as long
// as the device is mounted. Used only by overlay.cpp, which holds the lock of the devices.
#ifndef ZN_OVERLAY_STACK_HPP
#define ZN_OVERLAY_STACK_HPP

#include "base/owned.hpp"

#include <cstdint>

namespace zn {

// Writes the record in the mount point directory `node`. False with errno set.
bool stack_write(int node, const char* const* dirs, std::uint32_t count);
void stack_remove(int node);

// NUL-terminated strings, one after the other, and a final NUL.
struct StackText {
    znc::MallocPtr<char[]> text; // null: errno is set, ENOENT if there is no complete record
    std::size_t len = 0;

    [[nodiscard]] const char* first() const { return text.get(); }
    // The string after `dir`, or null.
    [[nodiscard]] const char* next(const char* dir) const;
};
StackText stack_read(int node);

// Opens the directory that the device `name` is mounted on, below the mount. Invalid with errno set
// on failure.
znc::UniqueFd stack_node(int devices, const char* name);

} // namespace zn

#endif
