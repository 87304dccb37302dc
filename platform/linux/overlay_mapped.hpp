// overlay_mapped.hpp - mounts overlayfs for a container that has a user namespace. Overlayfs itself
// cannot be id-mapped; its lower layers can. Used by the overlay devices.
#ifndef ZN_OVERLAY_MAPPED_HPP
#define ZN_OVERLAY_MAPPED_HPP

#include "base/list.hpp"
#include "ns_user.hpp"

namespace zn {

struct OverlayLayers {
    znc::MallocPtr<char[]> upper;
    List<znc::MallocPtr<char[]>> lower; // the first on top
};

// Mounts the layers on the directory `target` (a descriptor). The work directory "work" next to the
// upper one exists. Owners in lower layers are users of `user`; the upper directory gets the host's
// ids of its owner. 0, or an error number and nothing mounted.
int overlay_mount_mapped(int target, const OverlayLayers& layers, const UserNamespace& user);

} // namespace zn

#endif
