// notify.hpp - notifies the service manager (sd_notify protocol). Used by main and
// descriptor_store.
#ifndef ZNCD_NOTIFY_HPP
#define ZNCD_NOTIFY_HPP

namespace zncd {

// Sends `state` ("READY=1", "STOPPING=1") in one datagram to the socket named by NOTIFY_SOCKET, if
// it is set. A failure is logged as a warning.
void notify(const char* state);

// The same with a descriptor (-1: none). False with errno set, and nothing is logged; ENOTCONN if
// NOTIFY_SOCKET is not set.
bool notify_with(const char* state, int descriptor);

} // namespace zncd

#endif
