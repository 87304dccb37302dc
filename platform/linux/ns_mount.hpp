// ns_mount.hpp - the mounts of a namespace besides its root: each is made ready here, on the host,
// and attached by the keeper. Used by the namespace service. Left out: what a configured mount
// means (mount_plan), and attaching it inside the root (helper/keeper_mount.cpp).
#ifndef ZN_NS_MOUNT_HPP
#define ZN_NS_MOUNT_HPP

#include "base/owned.hpp"
#include "keeper_link.hpp"
#include "mount_plan.hpp"

#include <cstdint>

namespace zn {

// A copy of the tree at `path`, attached nowhere, with the attributes of the plan. `path` is
// resolved here, once. No descriptor, with errno set, when that fails.
znc::UniqueFd detached_tree(const char* path, const MountPlan& plan);

bool is_directory(int fd);

// The results are 0 or an error number.
class NamespaceMounts {
  public:
    NamespaceMounts() = default;
    NamespaceMounts(const NamespaceMounts&) = delete;
    NamespaceMounts& operator=(const NamespaceMounts&) = delete;
    ~NamespaceMounts();

    int mount(Keeper& keeper, const char* source, const char* destination, const char* type,
              const char* const* options);
    // Undoes the newest mount at `destination`; EINVAL when there is none. After ESRCH, for a
    // keeper that is dead, it is forgotten, too.
    int unmount(Keeper& keeper, const char* destination);

  private:
    struct Entry;

    Entry* newest_ = nullptr;
};

} // namespace zn

#endif
