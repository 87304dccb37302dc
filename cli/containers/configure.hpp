// configure.hpp - changes the configuration of a single container according to the user's options.
// Used by container_bundle.
#ifndef ZNC_CLI_CONTAINERS_CONFIGURE_HPP
#define ZNC_CLI_CONTAINERS_CONFIGURE_HPP

#include "container_options.hpp"

namespace zncctl {

// Changes the configuration, an object. `image` is the member "config" of the image's
// configuration, null for a bundle. Users are looked up in the root that the configuration names,
// an absolute path. Throws std::runtime_error.
void configure(Json& config, const ContainerOptions& options, const Json* image);

} // namespace zncctl

#endif
