// sentinel.hpp - directories that must not be modified, and snapshots that detect any stray write,
// link, mode or time change.
#ifndef SENTINEL_HPP
#define SENTINEL_HPP

#include <map>
#include <set>
#include <string>

namespace sentinel {

// For each path relative to the root ("." is the root): type, mode, owner, link count, inode, size,
// mtime and ctime, extended attributes, and content or target.
using Snapshot = std::map<std::string, std::string>;

Snapshot look(const std::string& root);

// Creates `dir` with files of several modes, a file with two names, directories, links, a FIFO,
// extended attributes and old times. Needs root.
void make(const std::string& dir);

std::set<std::string> names_in(const std::string& dir);

// Describes the differences for messages; "" if there are none.
std::string difference(const Snapshot& before, const Snapshot& after);

} // namespace sentinel

#endif
