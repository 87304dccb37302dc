// descriptor_message.hpp - messages of Unix sockets, also with a descriptor.
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

// As recvmsg() on a SOCK_SEQPACKET (or stream) socket whose messages are not empty; restarts after
// signals. The kernel looks at the queue first and for the end of the file later, so it may report
// the end while the last message is put into the queue: only a second report is the end.
inline ssize_t receive_packet(int socket, msghdr& message, int flags)
{
    const std::size_t room = message.msg_controllen;
    for (bool ended = false;;) {
        message.msg_controllen = room;
        const ssize_t n = ::recvmsg(socket, &message, flags | MSG_CMSG_CLOEXEC);
        if (n < 0 && errno == EINTR)
            continue;
        if (n != 0 || ended)
            return n;
        ended = true;
    }
}

// Receives a message as receive_packet(), and its descriptor if it has one. The number of bytes; 0
// if the sender is gone, -1 with errno set.
inline ssize_t receive_descriptor(int socket, void* data, std::size_t size, int flags,
                                  UniqueFd& descriptor)
{
    DescriptorControl control;
    iovec iov = {data, size};
    msghdr message = {};
    message.msg_iov = &iov;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = CMSG_LEN(sizeof(int)); // the kernel closes further ones
    const ssize_t n = receive_packet(socket, message, flags);
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
