// overlay_mount.hpp - the kernel's overlay filesystem: one mount over a stack of directories. Used
// by the overlay devices, which decide where and keep the records.
#ifndef ZN_OVERLAY_MOUNT_HPP
#define ZN_OVERLAY_MOUNT_HPP

#include <cstdint>

namespace zn {

// Whether the kernel has the overlay filesystem (it may have to load it).
bool overlay_supported();

// Mount the stack, first directory on top, on the directory `target` (a descriptor). The upper
// one's work directory is "work" beside it. 0, or -1 with errno set and nothing mounted.
int overlay_mount(int target, const char* const* dirs, std::uint32_t count, bool hasUpper);

// The two ways to do it: directories by descriptor (kernels from 6.13), and the classic call, whose
// options have room for some 200 directories.
int overlay_mount_by_fd(int target, const int* dirs, std::uint32_t count, int upper, int work);
int overlay_mount_classic(int target, const int* dirs, std::uint32_t count, int upper, int work);

} // namespace zn

#endif
