// sticky.hpp - the sticky bit of directories such as /tmp. Extracting layers gives files and
// directories their permission bits and nothing above them, so without it every user of a container
// could remove another's files. `run`, `unpack` and `create` put it back: the directories that have
// it are listed once, when the image is unpacked, in an annotation of the bundle's config.json, and
// get it in the container's own root when that is made.
#ifndef ZNC_CLI_IMAGES_STICKY_HPP
#define ZNC_CLI_IMAGES_STICKY_HPP

#include <string>
#include <vector>

namespace zncctl {

// The directories that the layers, the lowest first, leave with the sticky bit, as the annotation
// has them. At most 64; those with odd names are left out.
std::string sticky_directories(const std::vector<std::string>& layer_files);

// Sets it in a root that belongs to one container. Directories that are not there are left out.
// False with errno set when one could not be changed.
bool set_sticky(const std::string& root, const std::string& directories);

// The same for a container that was just created from a bundle, as its config.json says.
bool restore_sticky(const std::string& id, const std::string& bundle);

} // namespace zncctl

#endif
