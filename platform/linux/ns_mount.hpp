// ns_mount.hpp - the mounts of a namespace other than its root. They are prepared here, on the
// host, and attached inside the root by the keeper (helper/keeper_mount.cpp). mount_plan parses the
// options of a configured mount. Used by the namespace service.
#ifndef ZN_NS_MOUNT_HPP
#define ZN_NS_MOUNT_HPP

#include "base/owned.hpp"
#include "keeper_link.hpp"
#include "mount_plan.hpp"

#include <cstdint>

namespace zn {

// Returns a detached clone of the mount tree at `path` (open_tree) with the attributes of the plan.
// `path` is resolved only once, here. On failure the descriptor is invalid and errno is set.
znc::UniqueFd detached_tree(const char* path, const MountPlan& plan);

bool is_directory(int fd);

// mount() and unmount() return 0 or an errno value.
class NamespaceMounts {
  public:
    NamespaceMounts() = default;
    NamespaceMounts(const NamespaceMounts&) = delete;
    NamespaceMounts& operator=(const NamespaceMounts&) = delete;
    ~NamespaceMounts();

    int mount(Keeper& keeper, const char* source, const char* destination, const char* type,
              const char* const* options);
    // Removes the newest mount at `destination`; EINVAL if there is none. ESRCH: the keeper has
    // died; the entry is dropped in this case as well.
    int unmount(Keeper& keeper, const char* destination);

  private:
    struct Entry;

    Entry* newest_ = nullptr;
};

} // namespace zn

#endif
