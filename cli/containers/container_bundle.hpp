// container_bundle.hpp - the bundle of a single container: a copy of another bundle's configuration
// that names the same root, with the user's options, the container's network and its files
// /etc/hosts, /etc/hostname and /etc/resolv.conf. The other bundle does not change. Used by run and
// create.
#ifndef ZNC_CLI_CONTAINERS_CONTAINER_BUNDLE_HPP
#define ZNC_CLI_CONTAINERS_CONTAINER_BUNDLE_HPP

#include "cli/containers/container_options.hpp"
#include "cli/containers/network.hpp"
#include "front/json.hpp"

#include <string>

namespace zncctl {

// A container that is about to be created.
struct NewContainer { // NOLINT(bugprone-exception-escape): moving a JSON value does not throw
    std::string id;
    std::string image; // as the user named it; "": made from a bundle
    Network network;
    ContainerOptions options;
    bool started_later = false; // by another command, which needs to know how
};

// Changes a configuration for a container of this id: its namespaces, and the mounts of the files
// that are in the directory `files`. The configuration must be an object. Mounts of the
// configuration itself come later and cover these.
void add_network(Json& config, const Network& network, const std::string& files);

// Makes the directory `bundle` the bundle of the container, with the configuration and the root of
// the bundle `source`. Both may be the same; otherwise `bundle` must not exist. `image` is the
// member "config" of the image's configuration, null for a bundle of the user. The host name is the
// container's id unless an option or the bundle of the user names another one. Throws
// std::runtime_error.
void make_container_bundle(const std::string& bundle, const std::string& source,
                           const NewContainer& container, const Json* image);

// The bundle that a container's bundle was made from; "" if it was made from none.
std::string source_of_bundle(const std::string& bundle);

} // namespace zncctl

#endif
