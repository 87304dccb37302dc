// directory.hpp - reads directories that a container's processes may change at any time: by
// descriptors, without following symbolic links. Used by copy_tree, changes,
// tree_archive and tree_extract.
#ifndef ZNC_CLI_CONTAINERS_DIRECTORY_HPP
#define ZNC_CLI_CONTAINERS_DIRECTORY_HPP

#include <string>
#include <vector>

#include "base/owned.hpp"

namespace zncctl {

// Limited because each level keeps descriptors open, and a container can create trees of any depth.
inline constexpr unsigned kDepthMax = 200;

// Throws std::runtime_error if the directory is deeper than kDepthMax.
void check_depth(unsigned depth, const std::string& path);

// The names in an open directory except "." and "..", sorted. `path` names it in messages. Throws
// std::runtime_error.
std::vector<std::string> names_in(int dir, const std::string& path);

// Opens a directory in a directory for reading. Invalid with errno set, ENOTDIR or ELOOP for a
// symbolic link.
znc::UniqueFd open_directory(int dir, const std::string& name);

// Whether an error means that another process has removed or replaced a file since its name was
// read.
bool is_replaced(int error);

} // namespace zncctl

#endif
