// overlay_stack.hpp - the record of a read-only overlay device: the directories that it shows, the
// first on top, in a file of the bare directory that the device is mounted on. It is out of sight
// while the device exists. Used by the overlay devices alone, which hold their lock.
#ifndef ZN_OVERLAY_STACK_HPP
#define ZN_OVERLAY_STACK_HPP

#include "base/owned.hpp"

#include <cstdint>

namespace zn {

// In the bare directory `node`. False with errno set.
bool stack_write(int node, const char* const* dirs, std::uint32_t count);
void stack_remove(int node);

// Texts one after the other, each with its NUL, and one NUL more.
struct StackText {
    znc::MallocPtr<char[]> text; // null: errno says why, ENOENT when there is none or it has no end
    std::size_t len = 0;

    [[nodiscard]] const char* first() const { return text.get(); }
    // The one after `dir`, or null.
    [[nodiscard]] const char* next(const char* dir) const;
};
StackText stack_read(int node);

// The bare directory `name` of a device that exists, below the mount. None with errno set.
znc::UniqueFd stack_node(int devices, const char* name);

} // namespace zn

#endif
