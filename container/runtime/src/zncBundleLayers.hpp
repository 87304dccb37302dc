// zncBundleLayers.hpp - the layers that a bundle was unpacked from, remembered in the bundle
// itself.
//
// Overlay devices and flattened trees are named by the diff IDs that an image claims, and nobody
// compares those with its layers. While the storage base remembers a bundle, no other image gets
// its name. But the base may be lost, with a file system in memory for example, while the bundle
// stays: what has the name afterwards may be another image's. The names of layers are digests of
// what was extracted, so the bundle's own record tells.
//
// The record is a list (zncStoreRecord) in the file ".zn-layers" beside "config.json", written by
// the unpack and as private as the bundle's directory: the path of the root, and the names of its
// layers, the bottom one first.
#ifndef ZNCBUNDLELAYERS_HPP
#define ZNCBUNDLELAYERS_HPP

#include "zncStoreRecord.hpp"

namespace znc {

// The path of the record; null with the task error number set.
PathText bundle_layers_path(const char* bundle);

// Whether what is at `root`, the root path of the bundle's configuration, is made of the layers
// that the bundle was unpacked from. OK also when that is not asked: the bundle has no record,
// since it was made elsewhere or by an older version; its record is about another root, since
// somebody has changed the configuration; or there is nothing at `root`. ERROR with ESTALE for
// other layers, or with the number of what kept them from being known.
STATUS check_bundle_layers(const char* bundle, const char* root);

} // namespace znc

#endif
