// directory_tree.hpp - a directory of the file system as the one layer of an image. Used by
// import.cpp.
#ifndef ZNC_IMPORT_MERGE_DIRECTORY_TREE_HPP
#define ZNC_IMPORT_MERGE_DIRECTORY_TREE_HPP

#include "merge.hpp"

namespace zncimport {

// Returns everything below the directory `fd` (not owned) in byte order. Names with the same inode
// become hard links; sockets are skipped. Symbolic links are not followed. Throws Failure if a
// directory is replaced by another one before it is opened.
std::vector<Entry> read_directory(int fd, Spool& spool, Budget& budget);

} // namespace zncimport

#endif
