// stop_signals.hpp - SIGTERM and SIGINT as a descriptor, which the daemon task checks only between
// requests. Used by main.
#ifndef ZNCD_STOP_SIGNALS_HPP
#define ZNCD_STOP_SIGNALS_HPP

#include "base/owned.hpp"

namespace zncd {

// Blocks both signals in the calling thread and returns a descriptor that becomes readable when one
// is pending. Invalid with errno set.
znc::UniqueFd block_stop_signals();

// The stop signals that are pending, which are taken.
struct StopRequest {
    bool any = false;
    bool interrupt = false; // one of them is SIGINT
};
StopRequest stop_requested(int fd);

} // namespace zncd

#endif
