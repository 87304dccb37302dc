// image_bundle.hpp - the bundles that `run` creates from images in the storage base, and unpacking
// with progress reports and hints. Used by unpack, run, create, storage and delete.
#ifndef ZNC_CLI_CONTAINERS_IMAGE_BUNDLE_HPP
#define ZNC_CLI_CONTAINERS_IMAGE_BUNDLE_HPP

#include "cli/containers/container_bundle.hpp"
#include "cli/images/bundle_area.hpp"
#include "cli/images/image_source.hpp"
#include "front/command.hpp"
#include "front/layout.hpp"

#include <optional>

namespace zncctl {

// A bundle for a container that is about to be created. Until the container exists, no other
// process creates or collects the bundle.
struct NewBundle {
    std::optional<BundlesInUse> in_use;
    std::optional<BundleLock> lock;
    std::string path;
};

// Makes the bundle of an image for a container, and unpacks the image if necessary. With overlayfs
// all containers of an image share a root, without it each container has its own. False after
// printing a message, also if there is such a container already.
bool bundle_of_image(const Arguments& args, Wanted wanted, const NewContainer& container,
                     NewBundle& bundle);

// The same for a bundle of the user, whose configuration does not change: if an option or the
// network needs it, the container gets a bundle of its own.
bool bundle_of_bundle(const std::string& source, const NewContainer& container, NewBundle& bundle);

// The bundle of a container that is made from an image, or from `source` if it names none.
bool bundle_of_container(const Arguments& args, const std::string& source,
                         const NewContainer& container, NewBundle& bundle);

// Unpacks an image, with progress reports as given by --progress. Returns kExitOk, or another exit
// status after printing a message and hints.
int unpack_image(const Arguments& args, Wanted wanted, const std::string& bundle, unsigned option);

// The bundle that was created for this container alone; "" if there is none.
std::string own_bundle(const std::string& id);
// The same for several containers: `base` is storage_base(), which checks every directory above.
std::string own_bundle(const std::string& id, const std::string& base);

} // namespace zncctl

#endif
