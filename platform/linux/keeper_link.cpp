#include "keeper_link.hpp"

#include "base/descriptor_message.hpp"
#include "base/not_copied.hpp"
#include "launch.hpp"
#include "system/pidfd.hpp"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>

#include "zarnel/ns.h"

namespace zn {
namespace {

using znc::UniqueFd;

constexpr int kFreeDescriptors = 16;
constexpr std::int64_t kNsPerMillisecond = 1000000;

// All keepers of this process are executed from one file, so that they share its pages.
int keeper_file()
{
    static UniqueFd file;
    if (!file)
        file = helper_file();
    return file.get();
}

// Reserves a low descriptor number for the keeper's end of its socket while the keeper starts. The
// new process copies only the descriptors up to this number, not the two that its owner has for
// each container.
class ReservedDescriptor : znc::NotCopied {
  public:
    explicit ReservedDescriptor(int fd)
        : good_(number() >= 0 && ::dup3(fd, number(), O_CLOEXEC) >= 0)
    {
    }
    // Once the keeper runs, no other process may hold its end of the socket.
    ~ReservedDescriptor()
    {
        const znc::ErrnoSaver keep;
        if (good_)
            ::dup3(keeper_file(), number(), O_CLOEXEC);
    }

    explicit operator bool() const { return good_; }
    static int number()
    {
        static UniqueFd reserved;
        if (!reserved)
            reserved.reset(::fcntl(keeper_file(), F_DUPFD_CLOEXEC, 0));
        return reserved.get();
    }

  private:
    bool good_;
};

// A third descriptor for each container saves time only: few are kept where descriptors are scarce.
bool may_keep(int fd)
{
    rlimit limit = {};
    return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && static_cast<rlim_t>(fd) < limit.rlim_cur / 8;
}

} // namespace

bool Keeper::descriptors_left()
{
    UniqueFd free[kFreeDescriptors];
    for (UniqueFd& fd : free) {
        fd.reset(::fcntl(keeper_file(), F_DUPFD_CLOEXEC, 0));
        if (!fd)
            return false;
    }
    return true;
}

// A mount namespace that contains almost no mounts, kept open by a descriptor. Each keeper starts
// with a copy of it instead of a copy of the host's mount namespace, whose size grows with the
// number of containers; so no keeper ever sees the host's tree. -1 if it cannot be created: keepers
// then start with a copy of the host's mount namespace.
int Keeper::bare_mounts()
{
    static UniqueFd mounts;
    if (mounts)
        return mounts.get();
    const znc::ErrnoSaver keep;
    Keeper maker;
    if (!maker.launch(wire::kKeeperName, -1, CLONE_NEWPID))
        return -1;
    if (maker.ask(wire::Op::kBareMounts) == 0) {
        char path[64];
        std::snprintf(path, sizeof path, "/proc/%d/ns/mnt", maker.pid());
        mounts.reset(::open(path, O_RDONLY | O_CLOEXEC));
    }
    maker.kill(now_ns() + kNsPerSec);
    process_reap(maker.pidfd());
    return mounts.get();
}

bool Keeper::start(unsigned long namespaces)
{
    return launch(wire::kKeeperName, bare_mounts(), namespaces);
}

bool Keeper::start_starter()
{
    const int mounts = bare_mounts();
    return mounts >= 0 && launch(wire::kStarterName, mounts, 0);
}

void Keeper::adopt(pid_t pid, UniqueFd pidfd, UniqueFd socket)
{
    pid_ = pid;
    pidfd_ = std::move(pidfd);
    socket_ = std::move(socket);
    // Answers to earlier owners have other serial numbers, except with a negligible probability.
    serial_ = static_cast<std::uint32_t>(now_ns());
    posted_ = 0;
}

// Starts the part `part` of the helper in a copy of the mount namespace `mounts`, or of the
// caller's if it is negative.
bool Keeper::launch(const char* part, int mounts, unsigned long namespaces)
{
    const int file = keeper_file();
    int pair[2];
    if (file < 0 || !descriptors_left() ||
        ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
        return false;
    socket_.reset(pair[0]);
    UniqueFd theirs(pair[1]);
    const ReservedDescriptor start(theirs.get());
    theirs.reset();
    if (!start)
        return false;
    const LaunchFd fds[] = {{ReservedDescriptor::number(), wire::kKeeperSocket}};
    char name[16];
    std::snprintf(name, sizeof name, "%s", part);
    char* const argv[] = {name, nullptr};
    char* const envp[] = {nullptr};
    // No exit signal, so that the embedding program gets no SIGCHLD for keepers.
    const unsigned long flags = mounts < 0 ? namespaces | CLONE_NEWNS : namespaces;
    const int below = std::max({file, ReservedDescriptor::number(), mounts}) + 1;
    pid_ = launch_helper({file, flags, fds, wire::kKeeperSocket + 1, argv, envp, mounts, below},
                         pidfd_);
    return pid_ > 0;
}

// Receives the answer to the request of this number, and the descriptor that comes with it. 0 or an
// error number.
int Keeper::receive(wire::Answer& answer, std::uint32_t serial, int waitMilliseconds,
                    UniqueFd* descriptor)
{
    for (;;) {
        UniqueFd sent;
        const ssize_t n =
            znc::receive_descriptor(socket_.get(), &answer, sizeof answer, MSG_DONTWAIT, sent);
        if (n < 0 && errno == EAGAIN) {
            if (readable_within(socket_.get(), waitMilliseconds))
                continue;
            process_signal(pidfd_.get(), SIGKILL);
            socket_.reset(); // a late answer must not be taken for the answer to a later request
            return ETIMEDOUT;
        }
        if (n != static_cast<ssize_t>(sizeof answer))
            return ESRCH;
        if (answer.serial != serial)
            continue;
        if (descriptor != nullptr)
            *descriptor = std::move(sent);
        return 0;
    }
}

// Sends a request with the next number. 0 or an error number.
int Keeper::send(wire::Request request, std::span<const char> text, int descriptor, int flags)
{
    request.serial = serial_ + 1;
    iovec iov[2] = {{&request, sizeof request}, {const_cast<char*>(text.data()), text.size()}};
    msghdr message = {};
    message.msg_iov = iov;
    message.msg_iovlen = 2;
    znc::DescriptorControl control;
    if (descriptor >= 0)
        znc::add_descriptor(message, control, descriptor);
    if (!socket_)
        return ESRCH;
    ssize_t n;
    do {
        n = ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL | flags);
    } while (n < 0 && errno == EINTR);
    if (n < 0)
        return errno == EPIPE || errno == ECONNRESET ? ESRCH : errno;
    serial_++;
    return 0;
}

int Keeper::ask(const wire::Request& request, std::span<const char> text, int descriptor,
                std::uint64_t* value, int waitMilliseconds)
{
    wire::Answer answer = {};
    int error = send(request, text, descriptor, 0);
    if (error == 0)
        error = receive(answer, serial_, waitMilliseconds);
    if (error != 0)
        return error;
    if (value != nullptr)
        *value = answer.value;
    return answer.error;
}

// The processes of a namespace end with its keeper, so a live one says enough.
int Keeper::in_use(bool& used)
{
    used = live_ && !process_ended(live_.get(), 0);
    if (used)
        return 0;
    live_.reset();
    wire::Request request = {};
    request.op = wire::Op::kInUse;
    wire::Answer answer = {};
    int error = send(request, {}, -1, 0);
    if (error == 0)
        error = receive(answer, serial_, kAnswerMilliseconds, &live_);
    if (live_ && !may_keep(live_.get()))
        live_.reset();
    used = error == 0 && answer.error == 0 && answer.value != 0;
    return error != 0 ? error : answer.error;
}

int Keeper::post(const wire::Request& request, std::span<const char> text, int descriptor)
{
    wire::Request posted = request;
    posted.posted = 1;
    const int error = send(posted, text, descriptor, MSG_DONTWAIT);
    posted_ += error == 0 ? 1 : 0;
    return error;
}

int Keeper::settle(std::size_t& failed, int waitMilliseconds)
{
    const std::uint32_t count = std::exchange(posted_, 0U);
    const std::uint32_t first = serial_ - count + 1;
    std::uint64_t number = first + count;
    const int error = ask(wire::Op::kSettle, 0, &number, waitMilliseconds);
    failed = std::min(static_cast<std::uint32_t>(number) - first, count);
    return error;
}

int Keeper::ask(wire::Op op, std::uint64_t value, std::uint64_t* answer, int waitMilliseconds)
{
    wire::Request request = {};
    request.op = op;
    request.value = value;
    return ask(request, {}, -1, answer, waitMilliseconds);
}

void Keeper::kill_others(int waitMilliseconds)
{
    const znc::ErrnoSaver keep;
    ask(wire::Op::kKill, SIGKILL, nullptr, waitMilliseconds);
}

// While the keeper runs, it can report when all other processes in its namespaces are dead. If it
// were killed first, its end would be seen only after they are all reaped, which depends on their
// parents. So it is asked to exit, which it does once no live process is left.
void Keeper::kill(std::int64_t deadline)
{
    const znc::ErrnoSaver keep;
    for (;;) {
        const std::int64_t left = (deadline - now_ns()) / kNsPerMillisecond;
        if (left <= 0)
            break;
        const int wait = static_cast<int>(std::min<std::int64_t>(left, kAnswerMilliseconds));
        std::uint64_t used = 1;
        const int error = ask(wire::Op::kEnd, 0, &used, wait);
        if (error == ESRCH || (error == 0 && used == 0))
            break;
        const timespec pause = {0, 1000000};
        ::nanosleep(&pause, nullptr);
    }
    process_signal(pidfd_.get(), SIGKILL);
}

bool Keeper::ended(int waitMilliseconds) const
{
    return !pidfd_ || process_ended(pidfd_.get(), waitMilliseconds);
}

bool Keeper::reap()
{
    if (!ended(0))
        return false;
    process_reap(pidfd_.get());
    return true;
}

} // namespace zn
