#include "engine_socket.hpp"

#include "base/failure.hpp"
#include "zarnel/fs.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr char kName[] = "start";

static_assert(3 + kHelperFds + ZN_ENGINE_DESCRIPTORS_MAX <= kLaunchFdsMax);

// Through the descriptor, because socket paths are limited to about 100 bytes.
sockaddr_un address_in(int directory)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", directory,
                  kName);
    return address;
}

// Invalid with errno set. A socket of an engine may accept no connections, and its queue be full.
UniqueFd connect_to(const sockaddr_un& address, int type)
{
    constexpr timeval kPatience = {10, 0};
    UniqueFd socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (!socket ||
        ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience) != 0 ||
        ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return UniqueFd();
    return socket;
}

} // namespace

// Non-blocking: a first process that is stopped does not accept connections, and clients that only
// check whether it waits can fill the queue of the socket.
UniqueFd start_connect(int directory)
{
    return connect_to(address_in(directory), SOCK_SEQPACKET | SOCK_NONBLOCK);
}

UniqueFd start_socket_make(int directory)
{
    start_socket_remove(directory);
    const sockaddr_un address = address_in(directory);
    UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!socket ||
        ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(socket.get(), 8) != 0)
        return UniqueFd();
    return socket;
}

void start_socket_remove(int directory)
{
    const znc::ErrnoSaver keep;
    static_cast<void>(::unlinkat(directory, kName, 0));
}

std::uint64_t terminal_size(const ZN_ENGINE_PROGRAM& program)
{
    return std::uint64_t{program.rows & 0xffff} << 16U | (program.columns & 0xffff);
}

bool ProgramArguments::make(const char* name, const ZN_ENGINE_PROGRAM& program, bool unconfined)
{
    std::size_t count = 0;
    while (program.argv[count] != nullptr)
        count++;
    argv_ = znc::malloc_array<char*>(wire::kInitFixedArgs + count + 1);
    if (!argv_)
        return false;
    std::snprintf(name_, sizeof name_, "%s", name);
    std::snprintf(descriptors_, sizeof descriptors_, "%d", program.descriptors);
    std::snprintf(flags_, sizeof flags_, "%ld",
                  (program.console >= 0 ? wire::kInitTerminal : 0) |
                      (unconfined ? wire::kInitUnconfined : 0) |
                      (program.keepKeyring != FALSE ? wire::kInitKeyring : 0));
    std::snprintf(size_, sizeof size_, "%llu",
                  static_cast<unsigned long long>(terminal_size(program)));
    argv_[0] = name_;
    argv_[1] = const_cast<char*>(program.cwd);
    argv_[2] = descriptors_;
    argv_[3] = flags_;
    argv_[4] = const_cast<char*>(program.file != nullptr ? program.file : "");
    argv_[5] = size_;
    for (std::size_t i = 0; i < count; i++)
        argv_[wire::kInitFixedArgs + i] = program.argv[i];
    return true;
}

bool ProgramDescriptors::make(const ZN_ENGINE_PROGRAM& program, std::array<int, kHelperFds> own)
{
    if (program.descriptors < 0 || program.descriptors > ZN_ENGINE_DESCRIPTORS_MAX)
        return znc::fail(EINVAL, false);
    null_.reset(::open(ZN_NULL_DEVICE, O_RDWR | O_CLOEXEC));
    if (!null_)
        return false;
    // A stream that is closed is replaced by the null device.
    for (int stream = 0; stream <= 2; stream++) {
        const int output = program.output != 0 ? program.output : 1;
        const int given = stream == 0 ? program.input : stream == 1 ? output : stream;
        fds_[count_++] = {::fcntl(given, F_GETFD) >= 0 ? given : null_.get(), stream};
    }
    for (int i = 0; i < kHelperFds; i++)
        fds_[count_++] = {own[static_cast<std::size_t>(i)] >= 0 ? own[static_cast<std::size_t>(i)]
                                                                : null_.get(),
                          wire::kInitSocket + i};
    for (int i = 0; i < program.descriptors; i++)
        if (::fcntl(3 + i, F_GETFD) == 0)
            fds_[count_++] = {3 + i, wire::kInitFdEnd + i};
    return true;
}

} // namespace zn

using namespace zn;

namespace {

int connect_patiently(const sockaddr_un& address)
{
    UniqueFd socket = connect_to(address, SOCK_STREAM);
    if (!socket && errno == EAGAIN)
        errno = ETIMEDOUT;
    return socket.release();
}

} // namespace

BOOL znEngineWaits(int directory)
{
    const znc::ErrnoSaver keep;
    return start_connect(directory) || errno == EAGAIN ? TRUE : FALSE;
}

int znEngineConnect(const char* path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof address.sun_path) {
        // A longer path is reached through a descriptor of its directory.
        const char* slash = std::strrchr(path, '/');
        char above[4096];
        std::snprintf(above, sizeof above, "%.*s", static_cast<int>(slash - path), path);
        const UniqueFd directory(::open(above, O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!directory)
            return -1;
        const int len = std::snprintf(address.sun_path, sizeof address.sun_path,
                                      "/proc/self/fd/%d%s", directory.get(), slash);
        if (len < 0 || static_cast<std::size_t>(len) >= sizeof address.sun_path)
            return znc::fail(ENAMETOOLONG);
        return connect_patiently(address);
    }
    std::strcpy(address.sun_path, path);
    return connect_patiently(address);
}
