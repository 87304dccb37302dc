// path_trust_host.hpp - what znPathTrusted asks each platform.
#ifndef ZN_PLATFORM_PATH_TRUST_HOST_HPP
#define ZN_PLATFORM_PATH_TRUST_HOST_HPP

#include <optional>
#include <sys/types.h>

namespace zn {

// The owner and the group that files show whose own one the user namespace of the process does not
// map; none if it maps all. Preserves errno.
std::optional<id_t> unmapped_uid_shown() noexcept;
std::optional<id_t> unmapped_gid_shown() noexcept;

// Whether the entry `name` of the directory `dir` has an access control list, or may have one. The
// group bits of its mode are then those of all users and groups in the list.
bool may_have_access_list(int dir, const char* name) noexcept;

} // namespace zn

#endif
