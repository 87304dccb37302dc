// zncTreeDelete.hpp - deletes trees that an image or a container wrote.
//
// zncUtilXdelete follows a symbolic link to a directory, and does not terminate if part of the tree
// cannot be removed (a path longer than its buffers, a mount point, an undeletable file). Trees
// whose content is not trusted must therefore be deleted with this function: deleting a bundle,
// cleaning up after a failed extraction, deleting a container's upper layer.
#ifndef ZNCTREEDELETE_HPP
#define ZNCTREEDELETE_HPP

#include "zncontainer.h"

namespace znc {

// Removes everything inside the directory `dir` without following links inside it, then deletes
// `dir` as zncUtilXdelete does; a file is deleted too. ENAMETOOLONG, with nothing removed, if the
// path has kPathMax characters or more. If `dir` itself is a symbolic link, it is followed. Uses a
// bounded number of descriptors and a bounded stack, however deep the tree is. Stops at the first
// entry that cannot be removed: ERROR with errno set, EBUSY for a mount point, which is never
// entered. No other process may write into the tree during the call; if one does, the call fails
// rather than remove anything outside the tree.
STATUS delete_foreign_tree(const char* dir);

} // namespace znc

#endif
