// overlay_device.hpp - what the namespace service needs of the overlay devices besides their
// contract. Left out: everything in zarnel/overlay.h.
#ifndef ZN_OVERLAY_DEVICE_HPP
#define ZN_OVERLAY_DEVICE_HPP

namespace zn {

enum class Detach {
    kOwn,       // the caller's namespace was rooted on it and no longer is
    kAbandoned, // only if no namespace is rooted on it
};

// Detaches a container's device if it is there, without waiting long for the lock of the devices.
// 0, or -1 with errno set when it is still there: try again later.
int overlay_device_detach(const char* devName, Detach which);

// Devices that could not be detached when they should have been. They are remembered until a retry
// succeeds, or a namespace is rooted on them again. The namespace service's lock is held.
void overlay_device_detach_later(const char* devName);
void overlay_device_keep(const char* devName);
void overlay_devices_retry();

} // namespace zn

#endif
