// container_bundle.hpp - the bundle of a single container: a copy of another bundle's configuration
// that names the same root, with the container's network and its files /etc/hosts, /etc/hostname
// and /etc/resolv.conf. The other bundle does not change. Used by run and create.
#ifndef ZNC_CLI_CONTAINERS_CONTAINER_BUNDLE_HPP
#define ZNC_CLI_CONTAINERS_CONTAINER_BUNDLE_HPP

#include "cli/containers/network.hpp"
#include "front/json.hpp"

#include <string>

namespace zncctl {

// Changes a configuration for a container of this id: its namespaces, and the mounts of the files
// that are in the directory `files`. The configuration must be an object. Mounts of the
// configuration itself come later and cover these.
void add_network(Json& config, const Network& network, const std::string& files);

// The host name of a container: its id, or what the configuration says.
enum class Naming { kById, kConfigured };

// Makes the directory `bundle` the bundle of the container `id`, with the configuration and the
// root of the bundle `source`. Both may be the same; otherwise `bundle` must not exist. Throws
// std::runtime_error.
void make_container_bundle(const std::string& bundle, const std::string& source,
                           const std::string& id, const Network& network, Naming naming);

// The bundle that a container's bundle was made from; "" if it was made from none.
std::string source_of_bundle(const std::string& bundle);

} // namespace zncctl

#endif
