// keeper_request.hpp - requests with paths to a helper that serves them (keeper_link.hpp). Used by
// the namespace service and by engines' containers.
#ifndef ZN_KEEPER_REQUEST_HPP
#define ZN_KEEPER_REQUEST_HPP

#include "keeper_link.hpp"
#include "settings/settings.hpp"

namespace zn {

// Sends one or two texts. These functions return 0 or an error number.
int keeper_tell(Keeper& keeper, wire::Request request, const char* first,
                const char* second = nullptr);
int keeper_tell(Keeper& keeper, wire::Op op, const char* path);

// The owner is given by ids of the host.
int keeper_make_device(Keeper& keeper, const Device& device, std::uint32_t uid, std::uint32_t gid);

// The key "net.ipv4.ip_forward" is the file net/ipv4/ip_forward; a slash in the key is a dot in the
// file name.
int keeper_set_parameter(Keeper& keeper, const Sysctl& parameter);

} // namespace zn

#endif
