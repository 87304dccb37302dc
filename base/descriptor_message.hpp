// descriptor_message.hpp - messages of Unix sockets that pass a descriptor. Used by the platform
// for its helper and by zncrun for service managers. Receiving is left to the callers, which expect
// different things.
#ifndef ZNC_BASE_DESCRIPTOR_MESSAGE_HPP
#define ZNC_BASE_DESCRIPTOR_MESSAGE_HPP

#include <cstring>
#include <sys/socket.h>

namespace znc {

// Must exist until the message is sent.
struct DescriptorControl {
    alignas(cmsghdr) char bytes[CMSG_SPACE(sizeof(int))] = {};
};

inline void add_descriptor(msghdr& message, DescriptorControl& control, int descriptor)
{
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
}

} // namespace znc

#endif
