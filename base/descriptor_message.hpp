// descriptor_message.hpp - messages of Unix sockets that pass a descriptor.
#ifndef ZNC_BASE_DESCRIPTOR_MESSAGE_HPP
#define ZNC_BASE_DESCRIPTOR_MESSAGE_HPP

#include "base/owned.hpp"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

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

// Receives a message, and its descriptor if it has one. `flags` are those of recvmsg(). The number
// of bytes; 0 if the sender is gone, -1 with errno set.
inline ssize_t receive_descriptor(int socket, void* data, std::size_t size, int flags,
                                  UniqueFd& descriptor)
{
    DescriptorControl control;
    iovec iov = {data, size};
    msghdr message = {};
    message.msg_iov = &iov;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    ssize_t n;
    do {
        n = ::recvmsg(socket, &message, flags | MSG_CMSG_CLOEXEC);
    } while (n < 0 && errno == EINTR);
    const cmsghdr* const header = n > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS &&
        header->cmsg_len == CMSG_LEN(sizeof(int))) {
        int fd = -1;
        std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
        descriptor.reset(fd);
    }
    return n;
}

} // namespace znc

#endif
