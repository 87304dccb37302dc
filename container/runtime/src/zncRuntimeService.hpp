// zncRuntimeService.hpp - the daemon's request processing, under its own names for the tests and
// the fuzz target. The daemon task is the only other caller. Left out: the inspection document,
// which has a public builder.
#ifndef ZNCRUNTIMESERVICE_HPP
#define ZNCRUNTIMESERVICE_HPP

#include "zncRuntimeCSLib.hpp"

#include <cstddef>
#include <string_view>

namespace znc {

// Whether a queue name is one that zncCall makes: "/znc-u-<digits>-<digits>".
bool is_client_queue_name(std::string_view name);

// The process whose call has a queue of this name, reply or info; 0 for any other queue.
long client_of_queue(const char* name);

/*
 * Judge a message of which `received` bytes came in, and terminate its data in place. False: drop
 * it, without a reply or a progress text.
 *
 * Nothing in a message can be believed. It is dropped when it is shorter than its header, says that
 * it has more data than came with it or than a request can have, or names a reply queue that no
 * client makes: the daemon writes to the queue named there, and to the info queue beside it, and
 * must not be made to write to its own or to another program's.
 */
bool decode_request(zncMessage* message, std::size_t received);

// What the process that embeds the daemon may want to hear of, on the daemon task. Null: nothing.
struct ServiceListener {
    void (*ready)() = nullptr; // requests are taken from now on
    // One was served: its command, the container it names ("": none) and the error number.
    void (*served)(std::int32_t cmdId, const char* containerId, int error) = nullptr;
};
void set_service_listener(const ServiceListener& listener); // before the daemon task begins

} // namespace znc

// Serve one decoded request: handler, then reply. ERROR if there was no memory for a reply.
STATUS zncMessageProcess(zncMessage* msgHead);

// Send `length` bytes in pieces of at most one message, each taken within a second.
STATUS zncMessageSend(MSG_Q_ID handle, const char* buffer, std::size_t length);

// The state object of replies, or NULL when memory is short.
cJSON* zncMsgBodyInitByState(CONTAINER_STATE* state);

// Handlers: `root` is the parsed request, `array` the reply's body. 0 or an error number.
int zncCreateContainer(cJSON* root);
int zncStartContainer(cJSON* root, cJSON* array);
int zncKillContainer(cJSON* root);
int zncDeleteContainer(cJSON* root);
int zncQueryContainerState(cJSON* root, cJSON* array);
int zncQueryContainerList(cJSON* array);
int zncStorePidHandleContainer(cJSON* root);

#endif
