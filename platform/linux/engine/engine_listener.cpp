#include "engine_listener.hpp"

#include "base/owned.hpp"

#include <cerrno>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

// The process does not send its descriptor: the filter may forbid that, or have it wait for an
// answer of the program that is to get the descriptor.
UniqueFd descriptor_of(int pidfd, int number)
{
    return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_getfd, pidfd, number, 0)));
}

} // namespace

int listener_pass(const ZN_ENGINE_LISTENER* receiver, int number, pid_t pid, int pidfd, int socket,
                  Reason& said)
{
    if (receiver == nullptr)
        return said.say(ENOTSUP, "linux.seccomp: nobody receives the notifications");
    const UniqueFd listener = descriptor_of(pidfd, number);
    if (!listener)
        return said.say_errno(errno, "linux.seccomp: cannot get the listener of the filter");
    if (receiver->receive(listener.get(), pid, receiver->context) != OK)
        return said.say(ECANCELED, "linux.seccomp: the listener was not passed on");
    const char go = 1;
    return ::send(socket, &go, sizeof go, MSG_NOSIGNAL) == sizeof go
               ? 0
               : said.say_errno(errno, "the process of the program");
}

} // namespace zn
