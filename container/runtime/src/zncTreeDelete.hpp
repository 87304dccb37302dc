// zncTreeDelete.hpp - deleting trees that an image or a container wrote.
//
// zncUtilXdelete takes a link to a directory for that directory, and does not end on a tree it
// cannot take apart (names beyond its path buffers, mount points, files that cannot be
// removed). Whoever deletes a tree with foreign content therefore calls this instead: bundle
// delete, failed layer extraction, a container's upper layer.
#ifndef ZNCTREEDELETE_HPP
#define ZNCTREEDELETE_HPP

#include "zncontainer.h"

namespace znc {

// Removes everything inside the directory `dir`, by descriptors and never through a link inside it,
// then deletes `dir` as zncUtilXdelete does; a file is deleted too. A path of kPathMax characters
// or more is ENAMETOOLONG and changes nothing. A link at `dir` itself is the caller's and is
// followed. Uses a bounded number of descriptors and stack, however deep the tree. Stops at the
// first entry that cannot be removed: ERROR with its number, EBUSY for a mount point, which is
// never entered. Nobody else may write into the tree meanwhile; if somebody does, the call fails
// rather than leave the tree.
STATUS delete_foreign_tree(const char* dir);

} // namespace znc

#endif
