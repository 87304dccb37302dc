// overlay_left.cpp - devices of namespaces that have ended which are still to be detached because
// another process had the devices locked.
#include "overlay_device.hpp"

#include "base/owned.hpp"
#include "ns_record.hpp"

#include <cstdio>
#include <cstring>

namespace zn {
namespace {

struct LeftDevice {
    LeftDevice* next;
    char name[kRootPathMax];
};

LeftDevice* g_left = nullptr;

// Removes every entry for which `done(name)` is true.
template <class Done> void forget_if(Done done)
{
    for (LeftDevice** at = &g_left; *at != nullptr;) {
        if (!done((*at)->name)) {
            at = &(*at)->next;
            continue;
        }
        const znc::MallocPtr<LeftDevice> gone(*at);
        *at = gone->next;
    }
}

} // namespace

// If memory is exhausted, the device stays until the daemon stops or starts; both detach all
// writable devices.
void overlay_device_detach_later(const char* devName)
{
    overlay_device_detach_cancel(devName); // avoids a second entry
    auto left = znc::malloc_zeroed<LeftDevice>();
    if (!left)
        return;
    std::snprintf(left->name, sizeof left->name, "%s", devName);
    left->next = g_left;
    g_left = left.release();
}

void overlay_device_detach_cancel(const char* devName)
{
    forget_if([devName](const char* name) { return std::strcmp(name, devName) == 0; });
}

void overlay_devices_retry()
{
    const znc::ErrnoSaver keep;
    forget_if(
        [](const char* name) { return overlay_device_detach(name, Detach::kAbandoned) == 0; });
}

} // namespace zn
