// overlay_layers.hpp - the directories of the writable devices that this process created, which a
// container with a user namespace needs to mount its device again. Not all kernel versions report
// them. Used by the overlay devices, whose lock protects them.
#ifndef ZN_OVERLAY_LAYERS_HPP
#define ZN_OVERLAY_LAYERS_HPP

#include <cstdint>

namespace zn {

// Records the directories of a device, replacing earlier ones. If memory is exhausted, none are
// recorded.
void layers_note(const char* name, const char* const* dirs, std::uint32_t count);
void layers_forget(const char* name);

// The first directory of a device, or the one after `dir`; null if there is none.
const char* layers_noted(const char* name, const char* dir);

} // namespace zn

#endif
