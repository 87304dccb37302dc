// cgroup_known.hpp - the hierarchies of this machine, which are read again only when others are
// mounted: reading the mount table takes as long as creating a group. Used by the calls of
// cgroup.hpp that the namespace service makes. Their descriptors keep the mounts busy.
#ifndef ZN_CGROUP_KNOWN_HPP
#define ZN_CGROUP_KNOWN_HPP

#include "cgroup_tree.hpp"

namespace zn {

// While an object exists, other threads that make one wait.
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
