// queue_stub.hpp - the platform's message queues as a record of what is done to them, for fuzz
// targets of the two ends of a call. A program that links it has no other queues.
#ifndef QUEUE_STUB_HPP
#define QUEUE_STUB_HPP

#include <deque>
#include <string>
#include <vector>

namespace queue_stub {

struct Sent {
    std::string queue;
    std::string bytes;
};

struct Stub {
    std::vector<std::string> open; // by handle; "" once closed
    std::vector<Sent> sent;
    std::deque<std::string> replies; // what receives from reply queues find, one message each
    std::deque<std::string> infos;   // and those from info queues
};

Stub& stub();

// No open handles, nothing sent, nothing to receive.
void reset();

// Nothing is left open.
void check_closed();

} // namespace queue_stub

#endif
