// overlay_mount.hpp - mounts overlayfs over a stack of directories. Used by the overlay devices,
// which choose the place and keep records.
#ifndef ZN_OVERLAY_MOUNT_HPP
#define ZN_OVERLAY_MOUNT_HPP

#include <cstdint>

namespace zn {

// Whether the kernel supports overlayfs; may load the module.
bool overlay_supported();

// Mounts the stack, first directory on top, on the directory `target` (a descriptor). The work
// directory is "work" next to the upper directory. 0, or -1 with errno set and nothing mounted.
int overlay_mount(int target, const char* const* dirs, std::uint32_t count, bool hasUpper);

// Both ways to mount: directories by descriptor (since Linux 6.13), or mount(), whose options have
// room for about 200 directories.
int overlay_mount_by_fd(int target, const int* dirs, std::uint32_t count, int upper, int work);
int overlay_mount_classic(int target, const int* dirs, std::uint32_t count, int upper, int work);

} // namespace zn

#endif
