// notify.hpp - tells who supervises the daemon that it serves, or that it is about to end. Used by
// main.
#ifndef ZNCD_NOTIFY_HPP
#define ZNCD_NOTIFY_HPP

namespace zncd {

// One datagram to the socket that NOTIFY_SOCKET names, if it does: "READY=1", "STOPPING=1". A
// failure is a warning and nothing more.
void notify(const char* state);

} // namespace zncd

#endif
