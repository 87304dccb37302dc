// container_root.hpp - the files of a container as the host sees them, without what is mounted in
// the container. Used by diff and export.
#ifndef ZNC_CLI_CONTAINERS_CONTAINER_ROOT_HPP
#define ZNC_CLI_CONTAINERS_CONTAINER_ROOT_HPP

#include <string>

#include "base/owned.hpp"

namespace zncctl {

// Opens the root directory of an existing container for reading. Everything below it may be changed
// by the container's processes. Invalid with errno set.
znc::UniqueFd open_container_root(const std::string& id);

// The directories of which the root of a container consists. All are invalid if the root is not an
// overlay device; then there is no record of the container's changes.
struct RootParts {
    znc::UniqueFd upper;  // what the container changed
    znc::UniqueFd lower;  // what its image or bundle has
    znc::UniqueFd merged; // both, as the container sees it
};

// Throws std::runtime_error if a directory cannot be opened.
RootParts open_root_parts(const std::string& id);

} // namespace zncctl

#endif
