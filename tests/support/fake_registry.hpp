// fake_registry.hpp - zncContainer* functions over a table of containers that the test fills, for
// tests of the daemon's handlers. A program that links it has no other registry.
//
// Every call is recorded. A NULL id fails with EINVAL, an unknown one with ENODEV; containers have
// no namespace, processes or files. All functions are thread-safe.
#ifndef FAKE_REGISTRY_HPP
#define FAKE_REGISTRY_HPP

#include "zncontainer.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fake_registry {

struct Call {
    std::string function;              // "zncContainerKill"
    std::optional<std::string> id;     // none: NULL
    std::optional<std::string> bundle; // create only
    std::int64_t number = 0;           // the signal or the process handle
    unsigned option = 0;
    int errnoBefore = 0;
};

// Removes all containers, recorded calls and failures.
void reset();

// Adds a container. The strings of its state are as given; its version is "1.0.2".
void add(const std::string& id, CONTAINER_STATUS status, const std::string& bundle = "/bundle");
void set_context(const std::string& id, struct containerCtx* context);
void set_created_time(const std::string& id, time_t when);

// Sets what zncContainerStart returns; the strings remain owned by the caller.
void set_start_parm(const CONTAINER_START_PARM& parm);

// Makes the calls of the function fail from the nth on (1: the next).
void fail(const std::string& function, int errorNumber, int nth = 1);

// Runs `hook` in each call, before the result is determined, on the caller's thread.
void on_call(std::function<void(const Call&)> hook);

std::vector<Call> calls();

} // namespace fake_registry

#endif
