// request.cpp - see request.hpp.
#include "request.hpp"

#include <linux/errno.h>
#include <linux/uio.h>

namespace zn {
namespace {

// The structures of sendmsg and recvmsg, which the kernel headers do not define.
struct MessageHeader {
    void* name;
    int nameLen;
    iovec* iov;
    std::size_t iovLen;
    void* control;
    std::size_t controlLen;
    unsigned flags;
};
struct ControlHeader {
    std::size_t len;
    int level;
    int type;
};
struct ControlWithFd {
    ControlHeader header;
    int fd;
};
constexpr int kSolSocket = 1;
constexpr int kScmRights = 1;
constexpr unsigned kMsgCmsgCloexec = 0x40000000;
constexpr unsigned kMsgNoSignal = 0x4000;

} // namespace

bool request_receive(int socket, Incoming& in, sys::Fd& descriptor)
{
    ControlWithFd control = {};
    iovec iov = {&in, sizeof in};
    MessageHeader header = {nullptr, 0, &iov, 1, &control, sizeof control, 0};
    long n;
    do {
        n = sys::call(__NR_recvmsg, socket, sys::arg(&header), kMsgCmsgCloexec);
    } while (n == -EINTR);
    if (n <= 0)
        return false;
    if (header.controlLen >= sizeof(ControlHeader) + sizeof(int) &&
        control.header.level == kSolSocket && control.header.type == kScmRights)
        descriptor = sys::Fd(control.fd);
    const auto got = static_cast<std::size_t>(n);
    if (got < sizeof in.request || in.request.textLen > got - sizeof in.request ||
        in.request.textLen >= sizeof in.text)
        return false;
    in.text[in.request.textLen] = '\0';
    return true;
}

void request_answer(int socket, const wire::Request& request, wire::Answer answer, int descriptor)
{
    answer.serial = request.serial;
    // If the sender of the request is gone, the next receive reports it.
    static_cast<void>(descriptor_send(socket, &answer, sizeof answer, descriptor));
}

int descriptor_send(int socket, const void* data, std::size_t size, int descriptor)
{
    ControlWithFd control = {{sizeof(ControlHeader) + sizeof(int), kSolSocket, kScmRights},
                             descriptor};
    iovec iov = {const_cast<void*>(data), size};
    const bool with = descriptor >= 0;
    const MessageHeader header = {
        nullptr, 0, &iov, 1, with ? &control : nullptr, with ? sizeof control : 0, 0};
    const long n = sys::call(__NR_sendmsg, socket, sys::arg(&header), kMsgNoSignal);
    return n < 0 ? static_cast<int>(-n) : 0;
}

} // namespace zn
