// systemd_property.hpp - properties of systemd's units: those that limits of a container
// correspond to, and those that annotations give. Pure functions, apart from the devices, whose
// rules and drivers the platform knows.
#ifndef ZNC_OCI_SYSTEMD_PROPERTY_HPP
#define ZNC_OCI_SYSTEMD_PROPERTY_HPP

#include "context.hpp"
#include "front/json.hpp"

#include <cstdint>
#include <limits>
#include <utility>
#include <variant>
#include <vector>

namespace zncrun {

using zncctl::Json;

// Pairs of a device, "/dev/char/1:3" or "char-pts", and access, "rwm".
using UnitDevices = std::vector<std::pair<std::string, std::string>>;

using UnitValue =
    std::variant<bool, std::int32_t, std::uint32_t, std::int64_t, std::uint64_t, std::string,
                 std::vector<std::string>, std::vector<std::uint8_t>, UnitDevices>;

struct UnitProperty {
    std::string name;
    UnitValue value;
};
using UnitProperties = std::vector<UnitProperty>;

inline constexpr std::uint64_t kUnitInfinity = std::numeric_limits<std::uint64_t>::max();

// What a scope has while its limits are changed: some limits depend on others.
struct UnitLimits {
    std::uint64_t memory = kUnitInfinity;
    std::uint64_t period = kUnitInfinity; // microseconds; infinity: systemd's default
    std::uint64_t quota = kUnitInfinity;  // microseconds of processor time in each second
};

// Properties for those limits in `resources` (a "linux.resources" object) that systemd writes
// itself, so that it does not reset them when it writes the control files again. `version`: of the
// control groups, 1 or 2.
UnitProperties limit_properties(const Json& resources, int version, const UnitLimits& now);

// The properties in annotations "org.systemd.property.NAME". A value is true, false, a number
// ("uint64 5"; without a type int32), a 'string', or a list of strings. A number for a name that
// ends in "Sec" is in seconds and sets the property "...USec". Anything else is refused.
UnitProperties annotation_properties(const Json& annotations);

} // namespace zncrun

#endif
