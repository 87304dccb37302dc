// stop_signals.hpp - SIGTERM and SIGINT as a descriptor, so that the daemon task sees them between
// two requests and never in the middle of one. Used by main.
#ifndef ZNCD_STOP_SIGNALS_HPP
#define ZNCD_STOP_SIGNALS_HPP

#include "base/owned.hpp"

namespace zncd {

// Blocks both signals for this process and hands out the descriptor that becomes readable when
// one arrives. Invalid with errno set.
znc::UniqueFd block_stop_signals();

// Whether one has arrived.
bool stop_requested(int fd);

} // namespace zncd

#endif
