// fake_registry.hpp - zncContainer* functions over a table of containers that the test fills, for
// tests of the daemon's handlers. A program that links it has no other registry.
//
// It notes every call. A NULL id fails with EINVAL, an unknown one with ENODEV; containers have no
// namespace, processes or files. All of it may be used from any thread.
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

// Back to no containers, no calls, no script.
void reset();

// A container. Its state's strings are as given; version "1.0.2".
void add(const std::string& id, CONTAINER_STATUS status, const std::string& bundle = "/bundle");
void set_context(const std::string& id, struct containerCtx* context);
void set_created_time(const std::string& id, time_t when);

// What zncContainerStart hands out; the text is the caller's.
void set_start_parm(const CONTAINER_START_PARM& parm);

// Make the function's calls fail from the nth on (1: the next).
void fail(const std::string& function, int errorNumber, int nth = 1);

// Run this within each call, before its result, on the caller's thread.
void on_call(std::function<void(const Call&)> hook);

std::vector<Call> calls();

} // namespace fake_registry

#endif
