// zncBundleLayers.hpp - the record, inside a bundle, of the layers it was unpacked from.
//
// Overlay devices and flattened trees are named after the diff IDs in an image's configuration,
// which unpacking does not compare with the layers. As long as the storage base has a record of the
// bundle, no other image can take the name of its root. But the storage base may be lost, for
// example when it is on a tmpfs, while the bundle remains; another image may then be unpacked under
// that name. The names of layers are digests of their archives, so the bundle's own record shows
// such a change.
//
// The record is a TextList (zncStoreRecord) in the file ".zn-layers" next to "config.json". It is
// written by zncUnpack and protected only by the permissions of the bundle directory. It holds the
// path of the root and the names of its layers, lowest first.
#ifndef ZNCBUNDLELAYERS_HPP
#define ZNCBUNDLELAYERS_HPP

#include "zncStoreRecord.hpp"

namespace znc {

// The path of the record; null with errno set on failure.
PathText bundle_layers_path(const char* bundle);

// Checks that `root`, the root path in the bundle's configuration, is made of the layers that the
// bundle was unpacked from. Also returns OK if there is nothing to check: the bundle has no record
// (it was made by another program or by an older version), the record is about another root (the
// configuration was edited), or `root` does not exist. ERROR with ESTALE if the layers differ, or
// with the errno of what kept them from being read.
STATUS check_bundle_layers(const char* bundle, const char* root);

} // namespace znc

#endif
