// cgroup_known.hpp - caches the cgroup hierarchies of this machine, because reading the mount table
// is as expensive as creating a group. They are read again when the mounts have changed. Used by
// the functions of cgroup.hpp. Their descriptors keep the mounts busy.
#ifndef ZN_CGROUP_KNOWN_HPP
#define ZN_CGROUP_KNOWN_HPP

#include "base/not_copied.hpp"
#include "cgroup_tree.hpp"

namespace zn {

// Holds a lock: an object of another thread blocks until this one is destroyed. Whether the mounts
// have changed is checked by the first object of a thread, not by those within its lifetime.
class KnownHierarchies : znc::NotCopied {
  public:
    KnownHierarchies();
    ~KnownHierarchies();

    // 0, or the error number of reading them.
    [[nodiscard]] int error() const;
    [[nodiscard]] const Hierarchies& get() const;
};

} // namespace zn

#endif
