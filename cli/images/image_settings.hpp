// image_settings.hpp - filters the configuration of an image before it is passed to the library.
// The library copies an image's settings into the bundle's config.json unchecked, including mounts
// of host directories and the priority of the program. `run`, `unpack` and `spec` therefore never
// pass an image's own configuration to the library, but a new one without the settings that an
// image must not choose. It is also unambiguous: every JSON reader interprets the resulting
// config.json in the same way.
#ifndef ZNC_CLI_IMAGES_IMAGE_SETTINGS_HPP
#define ZNC_CLI_IMAGES_IMAGE_SETTINGS_HPP

#include "front/json.hpp"

#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zncctl {

// A configuration that is rejected: what() is the reason, in one line.
class BadConfiguration : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What the image requests apart from running its program: mounts, priority, root, ports, volumes.
// One line each; throws BadConfiguration.
std::vector<std::string> image_requests(const Json& configuration);

struct SettledConfiguration {
    Json document;
    std::vector<std::string> notes; // what was removed or changed, one line each
};

// Makes the configuration that is passed to the library. Of the mounts it keeps volumes and tmpfs
// and, with `allow_mounts`, host directories, but never "dev", "suid", "rbind" or mount
// propagation. A priority more urgent than normal becomes normal. Throws BadConfiguration.
SettledConfiguration filter_configuration(const Json& configuration, bool allow_mounts);

// The annotation in config.json that lists the directories whose sticky bit is lost when the image
// is extracted; see sticky.hpp. Labels of this name in an image are ignored.
inline constexpr const char* kStickyAnnotation = "zncontainer.sticky-directories";

} // namespace zncctl

#endif
