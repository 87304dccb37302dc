// rights_options.hpp - the options that change what a container's programs may do: capabilities,
// no-new-privileges and the filter of system calls.
#ifndef ZNC_CLI_CONTAINERS_RIGHTS_OPTIONS_HPP
#define ZNC_CLI_CONTAINERS_RIGHTS_OPTIONS_HPP

#include "container_options.hpp"

namespace zncctl {

// Reads --cap-add, --cap-drop and --security-opt. Throws as read_container_options().
void read_rights(const Arguments& args, ContainerOptions& options);

// Writes them into the member "process" of a configuration, whose user is known already.
void apply_capabilities(Json& process, const ContainerOptions& options);

// The capabilities that a container with this member "process" can have.
std::vector<std::string> capabilities_of(const Json& process);

// Converts a profile to the format of "linux.seccomp". Profiles of container engines have rules for
// certain architectures, capabilities and kernels; those that apply are kept. Throws
// std::runtime_error.
Json seccomp_of_profile(const Json& profile, const std::vector<std::string>& capabilities);

} // namespace zncctl

#endif
