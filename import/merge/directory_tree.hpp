// directory_tree.hpp - a directory of the file system as the one layer of an image. Used by
// import.cpp.
#ifndef ZNC_IMPORT_MERGE_DIRECTORY_TREE_HPP
#define ZNC_IMPORT_MERGE_DIRECTORY_TREE_HPP

#include "merge.hpp"

namespace zncimport {

// Everything below it, in byte order, names with the same inode as hard links; sockets are passed
// over. No link is followed, and a directory that is another one when it is opened ends it. `fd` is
// borrowed.
std::vector<Entry> read_directory(int fd, Spool& spool, Budget& budget);

} // namespace zncimport

#endif
