// image_bundle.hpp - the bundles that `run` creates from images in the storage base, and unpacking
// with progress reports and hints. Used by unpack, run, storage and delete.
#ifndef ZNC_CLI_IMAGES_IMAGE_BUNDLE_HPP
#define ZNC_CLI_IMAGES_IMAGE_BUNDLE_HPP

#include "bundle_area.hpp"
#include "front/command.hpp"
#include "front/layout.hpp"

#include <optional>

namespace zncctl {

// The path of the storage base, without a final "/". Throws std::runtime_error if it cannot be
// created.
std::string storage_base();

struct Wanted {
    ImageName image;
    std::string os;
    std::string arch;
};

// Combines an image name with the options --os and --arch of a command.
Wanted wanted_image(const Arguments& args, ImageName image);

// Returns the bundle of an image for a container, and creates it if necessary. With overlayfs all
// containers of an image share a bundle, without it each container has its own. `in_use` keeps the
// bundle from being collected until the container exists. Nullopt after printing a message.
std::optional<std::string> bundle_of_image(const Arguments& args, const Wanted& wanted,
                                           const std::string& id,
                                           std::optional<BundlesInUse>& in_use);

// Unpacks an image, with progress reports as given by --progress. Returns kExitOk, or another exit
// status after printing a message and hints.
int unpack_image(const Arguments& args, const Wanted& wanted, const std::string& bundle,
                 unsigned option);

// The bundle that was created for this container alone; "" if there is none.
std::string own_bundle(const std::string& id);

} // namespace zncctl

#endif
