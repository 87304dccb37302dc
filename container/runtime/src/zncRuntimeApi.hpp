// zncRuntimeApi.hpp - helpers shared by the client functions, and internal functions declared for
// the tests. The image functions, which do not use the daemon, need none of them.
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
 * Sends a request to the daemon and parses its reply. On ERROR errno is set by zncCall, or it is
 * the error number in the reply or, if the reply is not JSON, `notJson` (kKeepNumber: unchanged).
 */
inline constexpr int kKeepNumber = -1;
STATUS request_reply(int cmdId, std::span<zncParam> params, Reply* reply,
                     int notJson = kKeepNumber);

// The same, for requests whose reply body is not needed.
STATUS request_done(int cmdId, std::span<zncParam> params);

} // namespace znc

CONTAINER_STATUS zncStatusIntConvert(std::int32_t statusInt);

// Spawns the process described in the body of a start reply, reports it to the daemon, and waits
// for it unless `option` has ZNC_OPT_NO_WAIT.
STATUS zncContextStart(const char* containerId, cJSON* array, unsigned int option);

// Reports the spawned process to the daemon.
STATUS zncContextObjHandleStore(const char* containerId, OBJ_HANDLE objHandle);

#endif
