// ns_user.hpp - the user namespace of a container: the process that keeps it open, and how the
// container's users map to users of the host. Used by the namespace service.
//
// The keeper stays in the host's user namespace, because it needs the host's rights for mounts. The
// network, IPC and UTS namespaces are created with the user namespace, so that capabilities of
// programs apply to them; the mount and PID namespaces are not.
#ifndef ZN_NS_USER_HPP
#define ZN_NS_USER_HPP

#include "base/not_copied.hpp"
#include "base/owned.hpp"
#include "settings/settings.hpp"

#include <cstdint>
#include <optional>
#include <sys/types.h>

namespace zn {

class UserNamespace : znc::NotCopied {
  public:
    ~UserNamespace(); // ends the process

    // Creates the namespace, with further namespaces that it owns (CLONE_NEW flags). Both lists
    // must exist as long as this object. 0 or an error number.
    int start(const List<IdMapping>& uids, const List<IdMapping>& gids, unsigned long namespaces);

    // Takes over the process of a namespace that another process created, with the socket that
    // keeps it alive.
    void adopt(pid_t pid, znc::UniqueFd pidfd, znc::UniqueFd alive, const List<IdMapping>& uids,
               const List<IdMapping>& gids);

    explicit operator bool() const { return pid_ > 0; }
    // The process that keeps the namespace open.
    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] int pidfd() const { return pidfd_.get(); }
    [[nodiscard]] int socket() const { return alive_.get(); }

    // The namespace as mount_setattr needs it; invalid with errno set.
    [[nodiscard]] znc::UniqueFd open_namespace() const;

    // The id on the host. Without a user namespace ids are the same; an id that is not mapped has
    // none.
    [[nodiscard]] std::optional<std::uint32_t> host_uid(std::uint32_t uid) const;
    [[nodiscard]] std::optional<std::uint32_t> host_gid(std::uint32_t gid) const;

  private:
    pid_t pid_ = -1;
    znc::UniqueFd pidfd_;
    znc::UniqueFd alive_; // socket; the process ends when this is closed
    const List<IdMapping>* uids_ = nullptr;
    const List<IdMapping>* gids_ = nullptr;
};

// Reads the mappings of a process from /proc/PID/uid_map or gid_map. 0 or an error number.
int mappings_read(pid_t pid, const char* file, List<IdMapping>& mappings);

// The id on the host of an id in a user namespace; none if it is not mapped.
std::optional<std::uint32_t> mapped_id(const List<IdMapping>& mappings, std::uint32_t inside);

// Whether mappings contain one of `count` ids of the host.
bool maps_any(const List<IdMapping>& mappings, std::uint32_t first, std::uint32_t count);

} // namespace zn

#endif
