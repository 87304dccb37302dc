// sentinel.hpp - what nobody may touch: directories full of bait, and a look at everything of them
// that a stray write, link, mode or time would change.
#ifndef SENTINEL_HPP
#define SENTINEL_HPP

#include <map>
#include <set>
#include <string>

namespace sentinel {

// By path relative to the root ("." itself): type, mode, owner, link count, inode, size, times of
// change, extended attributes, and content or target.
using Snapshot = std::map<std::string, std::string>;

Snapshot look(const std::string& root);

// Makes `dir`: files of several modes, a file with two names, directories, links, a FIFO, extended
// attributes, old times. Needs root.
void make(const std::string& dir);

std::set<std::string> names_in(const std::string& dir);

// What differs, for messages; "" if nothing does.
std::string difference(const Snapshot& before, const Snapshot& after);

} // namespace sentinel

#endif
