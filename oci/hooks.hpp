// hooks.hpp - runs the hooks of a configuration, outside the container and inside it.
#ifndef ZNC_OCI_HOOKS_HPP
#define ZNC_OCI_HOOKS_HPP

#include "front/json.hpp"
#include "seccomp_agent.hpp"
#include "zarnel/engine.h"

#include <string>

namespace zncrun {

enum class OnFailure { kFail, kContinue };

// A container in whose namespaces hooks run.
struct HookPlace {
    ZN_ENGINE_PROCESS process;
    std::string group;
    // The configuration that confines the hooks, whose paths are then resolved in the container.
    // Null: the hooks have the rights of the caller, and the mount namespace still shows the host's
    // tree.
    const char* document;
    // The working directory: the root of the container, wherever it is mounted.
    const char* cwd;
    const SeccompAgent* agent; // with a document
};

// Fails if a hook of the configuration is not as it must be.
void check_hooks(const zncctl::Json& config);

// Whether there are hooks of this kind.
bool has_hooks(const zncctl::Json& config, const char* kind);

// Runs the hooks of one kind ("poststart") one after the other; each reads `state` from its
// standard input. If one does not exit with 0 before its timeout, fails (kFail) or continues with
// the next one (kContinue). Without `place` they run in the namespaces of the caller.
void run_hooks(const zncctl::Json& config, const char* kind, const std::string& state,
               OnFailure reaction, const HookPlace* place = nullptr);

} // namespace zncrun

#endif
