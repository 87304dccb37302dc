// image_bundle.hpp - the storage base as zncctl sees it: bundles of images that `run` made, and
// unpacking with its progress and hints. Used by unpack, run, storage and delete.
#ifndef ZNC_CLI_IMAGES_IMAGE_BUNDLE_HPP
#define ZNC_CLI_IMAGES_IMAGE_BUNDLE_HPP

#include "bundle_area.hpp"
#include "front/command.hpp"
#include "front/layout.hpp"

#include <optional>

namespace zncctl {

// The base itself, without a final "/". Throws when it cannot be made.
std::string storage_base();

struct Wanted {
    ImageName image;
    std::string os;
    std::string arch;
};

// What the options --os and --arch of a command say.
Wanted wanted_image(const Arguments& args, ImageName image);

// The bundle of an image for a container, made unless it is there: with the overlay filesystem all
// containers of an image share one, without it each has its own. `in_use` keeps it from being
// collected; it is needed until there is the container. Nothing after a message.
std::optional<std::string> bundle_of_image(const Arguments& args, const Wanted& wanted,
                                           const std::string& id,
                                           std::optional<BundlesInUse>& in_use);

// Unpacks with the progress that --progress asks for. kExitOk, or a status after a message and
// what is known about the reason.
int unpack_image(const Arguments& args, const Wanted& wanted, const std::string& bundle,
                 unsigned option);

// The bundle that was made for this container alone; "" if there is none.
std::string own_bundle(const std::string& id);

} // namespace zncctl

#endif
