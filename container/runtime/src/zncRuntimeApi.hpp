// zncRuntimeApi.hpp - what the client functions share, and their file-private operations for the
// tests. Left out: the image functions, which talk to no daemon.
#ifndef ZNCRUNTIMEAPI_HPP
#define ZNCRUNTIMEAPI_HPP

#include "zncRuntimeCSLib.hpp"

#include <span>

namespace znc {

// A reply that reports success. `body` points into `root`; null if the reply has none.
struct Reply {
    CJsonPtr root;
    cJSON* body = nullptr;
};

/*
 * Send a request to the daemon and take its reply apart. On ERROR the task error number is the
 * call's, the one in the reply, or, for a reply that is not JSON, `notJson` (kKeepNumber: as it
 * was).
 */
inline constexpr int kKeepNumber = -1;
STATUS request_reply(int cmdId, std::span<zncParam> params, Reply* reply,
                     int notJson = kKeepNumber);

// The same, for requests whose body does not matter.
STATUS request_done(int cmdId, std::span<zncParam> params);

} // namespace znc

CONTAINER_STATUS zncStatusIntConvert(std::int32_t statusInt);

// Spawn what a start reply's body says, tell the daemon, and wait unless `option` says not to.
STATUS zncContextStart(const char* containerId, cJSON* array, unsigned int option);

// Tell the daemon which process was spawned.
STATUS zncContextObjHandleStore(const char* containerId, OBJ_HANDLE objHandle);

#endif
