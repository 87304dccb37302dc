// ns_mount.hpp - the mounts of a namespace besides its root. Each is prepared here, on the host,
// and attached by the keeper (helper/keeper_mount.cpp). Used by the namespace service. Configured
// mounts are interpreted by mount_plan.
#ifndef ZN_NS_MOUNT_HPP
#define ZN_NS_MOUNT_HPP

#include "base/not_copied.hpp"
#include "base/owned.hpp"
#include "keeper_link.hpp"
#include "mount_plan.hpp"
#include "ns_user.hpp"

#include <string_view>

namespace zn {

// A detached clone of the tree at `path` with the attributes of the plan. `path` is resolved only
// here. `user` must exist for a plan with mapped owners. Invalid with errno set on failure.
znc::UniqueFd detached_tree(const char* path, const MountPlan& plan, const UserNamespace& user);

// The mounts of one namespace. The functions return 0 or an error number.
class NamespaceMounts : znc::NotCopied {
  public:
    ~NamespaceMounts();

    // The owners of file systems (options "uid" and "gid") are ids of `user`. File systems of the
    // types "cgroup" and "cgroup2" are the control group `group` alone, read-only.
    int mount(Keeper& keeper, const UserNamespace& user, const char* group, const char* source,
              const char* destination, const char* type, const char* const* options);
    // Unmounts the newest mount at `destination`; EINVAL if there is none. If the keeper is dead
    // (ESRCH), the mount is removed from the list, too.
    int unmount(Keeper& keeper, const char* destination);

    // Appends the list of mounts as text, or sets it from such a text. EINVAL if that is damaged.
    int save(List<char>& text) const;
    int restore(std::string_view text);

  private:
    struct Entry;

    Entry* newest_ = nullptr;
};

} // namespace zn

#endif
