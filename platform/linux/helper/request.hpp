// request.hpp - requests of the platform to the helper, and descriptors sent over sockets.
#ifndef ZN_HELPER_REQUEST_HPP
#define ZN_HELPER_REQUEST_HPP

#include "sys.hpp"
#include "wire.hpp"

namespace zn {

struct Incoming {
    wire::Request request;
    char text[wire::kTextMax]; // textLen bytes, with a NUL after them
};

// Receives a request and the descriptor sent with it. False if the sender is gone.
bool request_receive(int socket, Incoming& in, sys::Fd& descriptor);

// Answers `request`, with a descriptor unless it is negative.
void request_answer(int socket, const wire::Request& request, wire::Answer answer,
                    int descriptor = -1);

// Sends `size` bytes with a descriptor, or without one if it is negative. 0 or an error number.
int descriptor_send(int socket, const void* data, std::size_t size, int descriptor);

inline const char* next_text(const char* text)
{
    return text + strlen(text) + 1;
}

} // namespace zn

#endif
