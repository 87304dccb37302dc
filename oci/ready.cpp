#include "ready.hpp"

#include "base/descriptor_message.hpp"
#include "front/files.hpp"
#include "log.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

#include <fmt/format.h>

namespace zncrun {
namespace {

constexpr char kVariable[] = "NOTIFY_SOCKET";
constexpr char kDirectory[] = "notify"; // in the state directory
constexpr char kSocket[] = "notify.sock";
constexpr char kPlace[] = "/run/notify"; // in the container
constexpr std::size_t kMessageMax = 4096;
constexpr int kMessagesAtOnce = 64; // of a container that sends without end

// How long the service manager may take to read a message.
constexpr int kManagerSeconds = 5;

std::string manager_path()
{
    const char* path = std::getenv(kVariable);
    return path != nullptr ? path : "";
}

[[noreturn]] void fail_with(const std::string& path)
{
    throw Failure(fmt::format("{} {}: {}", kVariable, path, zncctl::error_text()));
}

// "@NAME" is a name without a file.
znc::UniqueFd connect_manager(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if ((path[0] != '/' && path[0] != '@') || path.size() >= sizeof address.sun_path)
        throw Failure(fmt::format("{}: {:?} is not the path of a socket", kVariable, path));
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path[0] == '@')
        address.sun_path[0] = '\0';
    const timeval patience = {kManagerSeconds, 0};
    znc::UniqueFd manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    if (!manager ||
        ::setsockopt(manager.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) != 0 ||
        ::connect(manager.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0)
        fail_with(path);
    return manager;
}

// All users of the container may send to it.
znc::UniqueFd bind_own(int directory)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s/%s",
                  zncctl::descriptor_path(directory).c_str(), kSocket);
    ::unlinkat(directory, kSocket, 0); // of a start that failed
    znc::UniqueFd own(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!own ||
        ::bind(own.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::fchmodat(directory, kSocket, 0666, 0) != 0)
        fail_with(kSocket);
    return own;
}

} // namespace

bool says_ready(std::string_view message)
{
    while (!message.empty()) {
        const std::string_view line = message.substr(0, message.find('\n'));
        if (line == "READY=1")
            return true;
        message.remove_prefix(std::min(line.size() + 1, message.size()));
    }
    return false;
}

void offer_ready_socket(Bundle& bundle, const StateDirectory& directory)
{
    if (manager_path().empty() || bundle.process().has_variable(kVariable))
        return;
    if (::mkdirat(directory.get(), kDirectory, 0755) != 0 ||
        ::fchmodat(directory.get(), kDirectory, 0755, 0) != 0) // whatever the umask is
        fail_with(kDirectory);
    bundle.add_bind(zncctl::descriptor_path(directory.get()) + "/" + kDirectory, kPlace,
                    {"ro", "nosuid", "nodev", "noexec"});
    bundle.add_variable(fmt::format("{}={}/{}", kVariable, kPlace, kSocket));
}

ReadySocket ReadySocket::listen(const Context& context, const StateDirectory& directory)
{
    ReadySocket socket;
    const znc::UniqueFd place(
        ::openat(directory.get(), kDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const std::string path = manager_path();
    if (path.empty() || (!place && errno == ENOENT))
        return socket;
    if (!place)
        fail_with(kDirectory);
    socket.context_ = &context;
    socket.manager_ = connect_manager(path);
    socket.own_ = bind_own(place.get());
    return socket;
}

// Descriptors that come with a message are closed by the kernel, since none are asked for.
void ReadySocket::receive(pid_t main)
{
    char message[kMessageMax];
    for (int count = 0; own_ && count < kMessagesAtOnce; count++) {
        const ssize_t size = ::recv(own_.get(), message, sizeof message, MSG_TRUNC);
        if (size < 0)
            return;
        const bool isWhole = static_cast<std::size_t>(size) <= sizeof message;
        if (isWhole && says_ready({message, static_cast<std::size_t>(size)})) {
            own_.reset();
            pass_on(main);
        }
    }
}

void ReadySocket::pass_on(pid_t main)
{
    const std::string ready = fmt::format("MAINPID={}\nREADY=1", main);
    if (::send(manager_.get(), ready.data(), ready.size(), MSG_NOSIGNAL) < 0)
        warn();
}

void ReadySocket::warn() const
{
    log_line(*context_, "warning",
             fmt::format("{} {}: {}", kVariable, manager_path(), zncctl::error_text()));
}

void ReadySocket::wait(const ZN_ENGINE_PROCESS& process)
{
    const znc::UniqueFd program(znEngineProcessOpen(&process));
    while (own_) {
        pollfd events[2] = {{own_.get(), POLLIN, 0}, {program.get(), POLLIN, 0}};
        if (::poll(events, 2, program ? -1 : 0) < 0)
            continue; // a signal
        if (events[0].revents != 0)
            receive(process.pid);
        else if (!program || events[1].revents != 0)
            return;
        if (!own_)
            await_manager();
    }
}

// The manager closes the descriptor when it has read all messages before.
void ReadySocket::await_manager() const
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return warn();
    const znc::UniqueFd ours(ends[0]);
    znc::UniqueFd theirs(ends[1]);
    char text[] = "BARRIER=1";
    iovec part = {text, sizeof text - 1};
    znc::DescriptorControl control;
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    znc::add_descriptor(message, control, theirs.get());
    if (::sendmsg(manager_.get(), &message, MSG_NOSIGNAL) < 0)
        return warn();
    theirs.reset();
    pollfd closed = {ours.get(), POLLIN, 0};
    ::poll(&closed, 1, kManagerSeconds * 1000);
}

} // namespace zncrun
