// zncRuntimeService.hpp - the daemon's request processing, declared for the daemon task, the unit
// tests and the fuzz target. The functions for the inspection document are public.
#ifndef ZNCRUNTIMESERVICE_HPP
#define ZNCRUNTIMESERVICE_HPP

#include "zncRuntimeCSLib.hpp"

#include <cstddef>
#include <string_view>

namespace znc {

// Whether a queue name has the form that zncCall uses: "/znc-u-<digits>-<digits>".
bool is_client_queue_name(std::string_view name);

// The id of the client process that uses a reply or info queue of this name; 0 for any other name.
long client_of_queue(const char* name);

/*
 * Validates a message of `received` bytes and terminates its data in place. False: drop the
 * message, without a reply or a progress text.
 *
 * Messages are untrusted. A message is dropped if it is shorter than its header, if it announces
 * more data than was received or than a request may have, or if its reply queue does not have the
 * form of a client's: the daemon writes to that queue and to the corresponding info queue, and must
 * not be made to write to its own queue or to one of another program.
 */
bool decode_request(zncMessage* message, std::size_t received);

// Callbacks for the process that embeds the daemon, called on the daemon task. May be null.
struct ServiceListener {
    void (*ready)() = nullptr; // the queue exists: requests are accepted from now on
    // A request was served: its command, the container id ("" if none) and the error number.
    void (*served)(std::int32_t cmdId, const char* containerId, int error) = nullptr;
};
void set_service_listener(const ServiceListener& listener); // call before zncDaemonTask

// From now on the daemon task does not remove its queue when it ends, and takes over the queue of
// an earlier one: requests sent in between are served. Those whose client no longer waits are
// dropped.
void keep_requests();

} // namespace znc

// Serves one decoded request: calls the handler and sends the reply. ERROR only if there was no
// memory for a reply.
STATUS zncMessageProcess(zncMessage* msgHead);

// Sends `length` bytes as one or more messages; each must be accepted within a second.
STATUS zncMessageSend(MSG_Q_ID handle, const char* buffer, std::size_t length);

// The state object of replies; NULL if there is no memory.
cJSON* zncMsgBodyInitByState(CONTAINER_STATE* state);

// Command handlers: `root` is the parsed request, `array` the body of the reply. They return 0 or
// an error number.
int zncCreateContainer(cJSON* root);
int zncStartContainer(cJSON* root, cJSON* array);
int zncKillContainer(cJSON* root);
int zncDeleteContainer(cJSON* root);
int zncQueryContainerState(cJSON* root, cJSON* array);
int zncQueryContainerList(cJSON* array);
int zncStorePidHandleContainer(cJSON* root);

#endif
