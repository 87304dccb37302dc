// changes.hpp - what a container changed in its root: the upper directory of its overlay device
// compared with the directory below it. Used by diff.
#ifndef ZNC_CLI_CONTAINERS_CHANGES_HPP
#define ZNC_CLI_CONTAINERS_CHANGES_HPP

#include "container_root.hpp"

#include <vector>

namespace zncctl {

enum class ChangeKind { kAdded, kChanged, kDeleted };

struct Change {
    ChangeKind kind;
    std::string path; // absolute, in the container
};

// The changes sorted by path, without the files and directories that are made for mounts in every
// container. The container may go on changing them. Throws std::runtime_error.
std::vector<Change> changes_of(const RootParts& root);

} // namespace zncctl

#endif
