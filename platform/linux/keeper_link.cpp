#include "keeper_link.hpp"

#include "launch.hpp"
#include "pidfd.hpp"

#include <cstring>
#include <ctime>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr unsigned long kNamespaces =
    CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWCGROUP;
constexpr int kAnswerMilliseconds = 4000; // below the time after which a client gives up
constexpr std::int64_t kKillNs = 2 * kNsPerSec;

// One helper file serves all keepers of this process, so that its pages are in memory once.
int keeper_file()
{
    static UniqueFd file;
    if (!file)
        file = helper_file();
    return file.get();
}

} // namespace

bool Keeper::start()
{
    const int file = keeper_file();
    int pair[2];
    if (file < 0 || ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
        return false;
    socket_.reset(pair[0]);
    const UniqueFd theirs(pair[1]);
    const LaunchFd fds[] = {{theirs.get(), wire::kKeeperSocket}};
    char name[sizeof wire::kKeeperName];
    std::memcpy(name, wire::kKeeperName, sizeof name);
    char* const argv[] = {name, nullptr};
    char* const envp[] = {nullptr};
    // No signal at the end: the owner's program need not know about keepers.
    pid_ = launch_helper({file, kNamespaces, fds, wire::kKeeperSocket + 1, argv, envp}, pidfd_);
    return pid_ > 0;
}

int Keeper::ask(const wire::Request& request, std::span<const char> text, int descriptor,
                std::uint64_t* value)
{
    iovec iov[2] = {{const_cast<wire::Request*>(&request), sizeof request},
                    {const_cast<char*>(text.data()), text.size()}};
    msghdr message = {};
    message.msg_iov = iov;
    message.msg_iovlen = 2;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (descriptor >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    }
    if (!socket_)
        return ESRCH;
    ssize_t n;
    do {
        n = ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    if (n < 0)
        return errno == EPIPE || errno == ECONNRESET ? ESRCH : errno;
    if (!readable_within(socket_.get(), kAnswerMilliseconds)) {
        process_signal(pidfd_.get(), SIGKILL);
        socket_.reset(); // a late answer must not be taken for that to a later request
        return ETIMEDOUT;
    }
    wire::Answer answer = {};
    do {
        n = ::recv(socket_.get(), &answer, sizeof answer, 0);
    } while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(sizeof answer))
        return ESRCH;
    if (value != nullptr)
        *value = answer.value;
    return answer.error;
}

int Keeper::ask(wire::Op op, std::uint64_t value, std::uint64_t* answer)
{
    wire::Request request = {};
    request.op = op;
    request.value = value;
    return ask(request, {}, -1, answer);
}

void Keeper::kill_others()
{
    const std::int64_t deadline = now_ns() + kKillNs;
    while (now_ns() < deadline) {
        std::uint64_t used = 0;
        const int error = ask(wire::Op::kInUse, 0, &used);
        if (error == ESRCH || (error == 0 && used == 0))
            return;
        ask(wire::Op::kKill, SIGKILL);
        const timespec pause = {0, 1000000};
        ::nanosleep(&pause, nullptr);
    }
}

void Keeper::kill()
{
    const znc::ErrnoSaver keep;
    // While the keeper lives it can say when the last of the others is dead; afterwards only when
    // the last of them is reaped, which may take as long as its parent likes.
    kill_others();
    process_signal(pidfd_.get(), SIGKILL);
}

bool Keeper::ended(int waitMilliseconds) const
{
    return process_ended(pidfd_.get(), waitMilliseconds);
}

bool Keeper::reap()
{
    if (!ended(0))
        return false;
    process_reap(pidfd_.get());
    return true;
}

} // namespace zn
