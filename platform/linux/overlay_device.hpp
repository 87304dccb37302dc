// overlay_device.hpp - operations on overlay devices for the namespace service, besides those of
// zarnel/overlay.h.
#ifndef ZN_OVERLAY_DEVICE_HPP
#define ZN_OVERLAY_DEVICE_HPP

#include "ns_user.hpp"

namespace zn {

enum class Detach {
    kOwn,       // it was the root of the caller's namespace and no longer is
    kAbandoned, // only if it is not the root of any namespace
};

// Detaches a container's device if it exists, without waiting long for the lock of the devices. 0,
// or -1 with errno set if the device could not be detached and the caller should retry later.
int overlay_device_detach(const char* devName, Detach which);

// Mounts a writable device of this process again, with the owners that files have in a user
// namespace. 0, or -1 with errno set; the device may be gone then.
int overlay_device_map(const char* devName, const UserNamespace& user);

// Keeps a list of devices that could not be detached when they should have been. A device is
// removed from the list when a retry succeeds or when it becomes the root of a namespace again.
// Callers hold the lock of the namespace service.
void overlay_device_detach_later(const char* devName);
void overlay_device_detach_cancel(const char* devName);
void overlay_devices_retry();

} // namespace zn

#endif
