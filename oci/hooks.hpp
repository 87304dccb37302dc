// hooks.hpp - runs the hooks of a configuration, outside the container.
#ifndef ZNC_OCI_HOOKS_HPP
#define ZNC_OCI_HOOKS_HPP

#include "front/json.hpp"

#include <string>

namespace zncrun {

enum class OnFailure { kFail, kContinue };

// Runs the hooks of one kind ("poststart") one after the other; each reads `state` from its
// standard input. Fails if one does not exit with 0 in time, or goes on with the next one.
void run_hooks(const zncctl::Json& config, const char* kind, const std::string& state,
               OnFailure reaction);

} // namespace zncrun

#endif
