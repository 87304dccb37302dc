// engine_user.hpp - the user namespace of an engine's container: a new one or an existing one, and
// how the container's users map to users of the host. Called by the other files of this folder.
#ifndef ZN_ENGINE_USER_HPP
#define ZN_ENGINE_USER_HPP

#include "mount_plan.hpp"
#include "ns_user.hpp"

namespace zn {

class EngineUser {
  public:
    // Creates or opens the namespace that the settings specify; does nothing if they specify none.
    // The settings must exist as long as this object. 0 or an error number.
    int open(const Settings& settings);

    // Reads the mappings of the user namespace of a process. 0 or an error number.
    int read_mappings(pid_t pid);

    explicit operator bool() const { return static_cast<bool>(namespace_); }
    [[nodiscard]] int get() const { return namespace_.get(); }

    // The id on the host. Without a user namespace ids are the same; one that is not mapped has
    // none.
    [[nodiscard]] std::optional<std::uint32_t> host_uid(std::uint32_t uid) const;
    [[nodiscard]] std::optional<std::uint32_t> host_gid(std::uint32_t gid) const;
    [[nodiscard]] const List<IdMapping>& uids() const { return uids_; }

    // Translates the owners in the options "uid" and "gid" of a file system to ids of the host, and
    // makes the container's root the owner of a tmpfs without these. 0 or an error number: EINVAL
    // if an id is not mapped.
    int map_options(MountPlan& plan) const;

  private:
    UserNamespace new_;
    znc::UniqueFd namespace_;
    List<IdMapping> uids_;
    List<IdMapping> gids_;
};

// Whether the process has another user namespace than this one. 0 or an error number.
int has_own_users(pid_t pid, bool& own);

} // namespace zn

#endif
