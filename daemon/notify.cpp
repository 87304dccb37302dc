#include "notify.hpp"

#include "base/descriptor_message.hpp"
#include "base/owned.hpp"
#include "log.hpp"
#include "zarnel/fs.h"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace zncd {
namespace {

// Returns the length of the address; 0 with errno set.
socklen_t manager_address(sockaddr_un& address)
{
    const char* const name = std::getenv("NOTIFY_SOCKET");
    errno = ENOTCONN;
    if (name == nullptr || *name == '\0')
        return 0;
    const std::size_t len = std::strlen(name);
    errno = EINVAL;
    if ((name[0] != '/' && name[0] != '@') || len >= sizeof address.sun_path)
        return 0;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name, len);
    if (name[0] == '@') // an abstract name
        address.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + len);
}

} // namespace

bool notify_with(const char* state, int descriptor)
{
    sockaddr_un address = {};
    iovec text = {const_cast<char*>(state), std::strlen(state)};
    msghdr message = {};
    message.msg_name = &address;
    message.msg_namelen = manager_address(address);
    message.msg_iov = &text;
    message.msg_iovlen = 1;
    if (message.msg_namelen == 0)
        return false;
    znc::DescriptorControl control;
    if (descriptor >= 0)
        znc::add_descriptor(message, control, descriptor);
    const znc::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return socket && ::sendmsg(socket.get(), &message, MSG_NOSIGNAL) >= 0;
}

void notify(const char* state)
{
    if (notify_with(state, -1) || errno == ENOTCONN)
        return;
    std::array<char, 256> reason{};
    znErrorText(errno, reason.data(), reason.size());
    log(Level::kWarning, "cannot notify %s of %s: %s", std::getenv("NOTIFY_SOCKET"), state,
        reason.data());
}

} // namespace zncd
