// zncStoreTree.hpp - renames an extracted flattened tree to its final name. Containers may be using
// an existing tree of that name as their lower directory, so that this code never writes to it or
// deletes it. Used by the unpack.
#ifndef ZNCSTORETREE_HPP
#define ZNCSTORETREE_HPP

#include "zncLayerStage.hpp"

namespace znc {

// Compares two trees: names, types, owners, permission bits, file contents, targets of symbolic
// links and modification times of regular files. Symbolic links are not followed. ERROR, with the
// error of the failing call, if they cannot be compared.
STATUS compare_trees(const char* a, const char* b, bool* same);

// Renames the tree in `stage`, which must be complete and on disk, to `tree`. If an equal tree has
// that name, it stays and the new one is deleted. A different tree, one that was modified after its
// extraction, is exchanged atomically and set aside next to it as ".old-<name>-XXXXXX" for the
// containers that use it, until a collection removes it. `unrecorded`: there is no record of the
// layers that the existing tree was made of; EEXIST if it differs. If the trees cannot be compared,
// the existing one stays.
STATUS place_tree(LayerStage& stage, const char* tree, bool unrecorded);

} // namespace znc

#endif
