// image_settings.hpp - what an image's configuration asks for, and how much of it a bundle gets.
// The library writes into a bundle's config.json whatever an image says: mounts of the host's
// directories, the priority of the program. So `run`, `unpack` and `spec` never hand an image's
// own configuration to the library, but one that is written anew here: without what an image must
// not decide, and so that every reader of the config.json finds the same in it.
#ifndef ZNC_CLI_IMAGES_IMAGE_SETTINGS_HPP
#define ZNC_CLI_IMAGES_IMAGE_SETTINGS_HPP

#include "front/json.hpp"

#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zncctl {

// A configuration that is refused: what() is one line that says why.
class BadConfiguration : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What the image asks for beyond running its program: mounts, priority, root, ports, volumes. One
// line each; throws BadConfiguration.
std::vector<std::string> asked_for(const Json& configuration);

struct SettledConfiguration {
    Json document;
    std::vector<std::string> notes; // what was left out or changed, one line each
};

// The configuration that the library is given. Of mounts only volumes and memory file systems stay,
// with `allow_mounts` also the host's directories, never with "dev", "suid", "rbind" or a
// propagation. A priority more urgent than normal becomes normal. Throws BadConfiguration.
SettledConfiguration settle_configuration(const Json& configuration, bool allow_mounts);

// The annotation of config.json that has the directories whose sticky bit extracting loses; see
// sticky.hpp. No image has one of its own.
inline constexpr const char* kStickyAnnotation = "zncontainer.sticky-directories";

} // namespace zncctl

#endif
