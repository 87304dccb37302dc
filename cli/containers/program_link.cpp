#include "program_link.hpp"

#include "base/descriptor_message.hpp"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

namespace zncctl {
namespace {

constexpr std::size_t kDataMax = 32768; // far below the limit of a message on a socket

struct Header {
    LinkMessage::Kind kind;
    std::int32_t value;
};

} // namespace

std::array<ProgramLink, 2> ProgramLink::make()
{
    std::array<ProgramLink, 2> ends;
    std::array<int, 2> fds = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds.data()) == 0)
        for (std::size_t i = 0; i < fds.size(); i++)
            ends[i].socket_.reset(fds[i]);
    return ends;
}

void ProgramLink::send(LinkMessage::Kind kind, int value, std::string_view data) const
{
    do {
        Header header = {kind, value};
        const std::string_view part = data.substr(0, kDataMax);
        data.remove_prefix(part.size());
        std::array<iovec, 2> parts = {iovec{&header, sizeof header},
                                      iovec{const_cast<char*>(part.data()), part.size()}};
        msghdr message = {};
        message.msg_iov = parts.data();
        message.msg_iovlen = parts.size();
        while (::sendmsg(socket_.get(), &message, MSG_NOSIGNAL) < 0 && errno == EINTR) {
        }
    } while (!data.empty());
}

std::optional<LinkMessage> ProgramLink::receive(bool wait) const
{
    std::array<char, sizeof(Header) + kDataMax> buffer{};
    iovec data = {buffer.data(), buffer.size()};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    const ssize_t n = znc::receive_packet(socket_.get(), message, wait ? 0 : MSG_DONTWAIT);
    Header header = {};
    if (n < static_cast<ssize_t>(sizeof header)) {
        if (n >= 0 || errno != EAGAIN)
            errno = EPIPE;
        return std::nullopt;
    }
    std::memcpy(&header, buffer.data(), sizeof header);
    return LinkMessage{
        header.kind, header.value,
        std::string(buffer.data() + sizeof header, static_cast<std::size_t>(n) - sizeof header)};
}

void ProgramLink::finish_sending() const
{
    ::shutdown(socket_.get(), SHUT_WR);
}

} // namespace zncctl
