// cgroup_known.hpp - caches the cgroup hierarchies of this machine, because reading the mount table
// is as expensive as creating a group. They are read again when the mounts have changed. Used by
// the calls of cgroup.hpp that the namespace service makes. Their descriptors keep the mounts busy.
#ifndef ZN_CGROUP_KNOWN_HPP
#define ZN_CGROUP_KNOWN_HPP

#include "cgroup_tree.hpp"

namespace zn {

// Holds a lock: a second object blocks until the first one is destroyed.
class KnownHierarchies {
  public:
    KnownHierarchies();
    ~KnownHierarchies();
    KnownHierarchies(const KnownHierarchies&) = delete;
    KnownHierarchies& operator=(const KnownHierarchies&) = delete;

    // 0, or the error number of reading them.
    [[nodiscard]] int error() const { return error_; }
    [[nodiscard]] const Hierarchies& get() const;

  private:
    int error_ = 0;
};

} // namespace zn

#endif
