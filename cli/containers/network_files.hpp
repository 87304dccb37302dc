// network_files.hpp - the texts of the files /etc/resolv.conf, /etc/hosts and /etc/hostname that a
// container gets. Used by container_bundle.
#ifndef ZNC_CLI_CONTAINERS_NETWORK_FILES_HPP
#define ZNC_CLI_CONTAINERS_NETWORK_FILES_HPP

#include <string>
#include <string_view>

namespace zncctl {

// The host's resolv.conf for a container that pasta connects: name servers on the host's loopback
// interface are replaced by pasta's address, everything but name servers, search domains and
// options is left out.
std::string resolver_text(std::string_view host);

// Entries for localhost and for the container's host name, unless that is not a valid host name.
std::string hosts_text(const std::string& name);

// The default host name of a container: its id, cut to the length of a host name, with "-" for
// characters that a host name cannot contain.
std::string host_name_of(const std::string& id);

} // namespace zncctl

#endif
