// engine_listener.hpp - passes the listener of a seccomp filter from the process that has installed
// the filter to the caller of an engine function. Called by engine_start.cpp.
#ifndef ZN_ENGINE_LISTENER_HPP
#define ZN_ENGINE_LISTENER_HPP

#include "engine_reason.hpp"
#include "zarnel/engine.h"

namespace zn {

// The process has reported its descriptor `number`, and waits at the other end of `socket`. 0, or
// an error number with the reason said; the process does not continue then.
int listener_pass(const ZN_ENGINE_LISTENER* receiver, int number, pid_t pid, int pidfd, int socket,
                  Reason& said);

} // namespace zn

#endif
