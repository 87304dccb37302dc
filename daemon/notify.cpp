#include "notify.hpp"

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

void notify(const char* state)
{
    const char* const name = std::getenv("NOTIFY_SOCKET");
    if (name == nullptr || *name == '\0')
        return;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::size_t len = std::strlen(name);
    if ((name[0] != '/' && name[0] != '@') || len >= sizeof address.sun_path) {
        log(Level::kWarning, "NOTIFY_SOCKET is not a valid socket name");
        return;
    }
    std::memcpy(address.sun_path, name, len);
    if (name[0] == '@') // an abstract name
        address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + len);
    const znc::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket || ::sendto(socket.get(), state, std::strlen(state), MSG_NOSIGNAL,
                            reinterpret_cast<const sockaddr*>(&address), size) < 0) {
        std::array<char, 256> reason{};
        znErrorText(errno, reason.data(), reason.size());
        log(Level::kWarning, "cannot notify %s of %s: %s", name, state, reason.data());
    }
}

} // namespace zncd
