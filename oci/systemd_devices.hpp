// systemd_devices.hpp - the devices of a container as properties of its scope. Only with v1: there
// systemd writes the list itself, and would allow all devices without these properties. With v2
// programs of the kernel decide, which systemd does not replace.
#ifndef ZNC_OCI_SYSTEMD_DEVICES_HPP
#define ZNC_OCI_SYSTEMD_DEVICES_HPP

#include "systemd_property.hpp"
#include "zarnel/engine.h"

#include <span>

namespace zncrun {

// The properties for the rules in `resources` and for the devices that every container has.
UnitProperties device_properties(const Json& resources);

// The same from rules of which the last one that matches decides. systemd knows a list of allowed
// devices only: rules that deny some devices and allow all others are refused.
UnitProperties device_properties(std::span<const ZN_ENGINE_DEVICE_RULE> rules);

} // namespace zncrun

#endif
