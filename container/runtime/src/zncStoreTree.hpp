// zncStoreTree.hpp - a flattened tree gets its name. Containers may use the tree that has the name
// already as their lower directory, so it is neither written to nor deleted here. Used by the
// unpack.
#ifndef ZNCSTORETREE_HPP
#define ZNCSTORETREE_HPP

#include "zncLayerStage.hpp"

namespace znc {

// Whether two trees hold the same: names, kinds, owners, permission bits, contents, targets of
// links and times of files. Follows no link. Trees that cannot be compared are not the same.
bool same_tree(const char* a, const char* b);

// Gives the tree in `stage`, whole and on disk, the name `tree`. One of that name that holds
// the same stays instead; one that does not, since somebody changed it, is exchanged in one step
// and set aside as ".old-<name>-XXXXXX" beside it, for whoever uses it, until the store is
// collected. `unknown`: nobody knows what the tree was made of; if it is not the same, EEXIST.
STATUS place_tree(LayerStage& stage, const char* tree, bool unknown);

} // namespace znc

#endif
