// keep_process.cpp - see keep_process.hpp.
#include "keep_process.hpp"

#include "base/directory.hpp"
#include "helper/wire.hpp"
#include "kept_file.hpp"
#include "launch.hpp"
#include "ns_record.hpp"
#include "system/pidfd.hpp"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr char kRecord[] = "store";
constexpr char kLine[] = "%d %llu\n";
constexpr int kEndMilliseconds = 2000;

UniqueFd copy_from(int pidfd, int number)
{
    return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_getfd, pidfd, number, 0)));
}

bool is_control_socket(int descriptor)
{
    int domain = 0;
    int type = 0;
    socklen_t size = sizeof type;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 &&
           ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && domain == AF_UNIX &&
           type == SOCK_SEQPACKET;
}

} // namespace

bool runs_helper(pid_t pid)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/exe", pid);
    const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
    constexpr int kSealed = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
    return file && (::fcntl(file.get(), F_GET_SEALS) & kSealed) == kSealed;
}

int KeepProcess::connect(pid_t pid, UniqueFd pidfd)
{
    UniqueFd socket = copy_from(pidfd.get(), wire::kStoreOwner);
    if (!socket)
        return errno;
    if (!is_control_socket(socket.get()))
        return ESRCH;
    link_.adopt(pid, std::move(pidfd), std::move(socket));
    return 0;
}

int KeepProcess::find()
{
    KeptText text;
    pid_t pid = 0;
    unsigned long long startTime = 0;
    int error = kept_read(kRecord, text);
    if (error != 0)
        return error == ENOENT || error == EINVAL || error == EPROTO ? ESRCH : error;
    if (std::sscanf(text.content.data(), kLine, &pid, &startTime) != 2 || pid <= 0)
        return ESRCH;
    UniqueFd pidfd = process_recorded(pid, startTime);
    if (!pidfd)
        return errno;
    if (!runs_helper(pid) || process_ended(pidfd.get(), 0))
        return ESRCH;
    // Without that descriptor the process was not told yet to outlive its owner: it has ended.
    error = connect(pid, std::move(pidfd));
    return error == EBADF ? ESRCH : error;
}

// From here on the process outlives its owner, so it must have been recorded before.
int KeepProcess::commit()
{
    int number = -1;
    const int error = put(link_.socket(), number);
    if (error != 0)
        return error;
    return number == wire::kStoreOwner && copy_from(link_.pidfd(), number) ? 0 : EPERM;
}

int KeepProcess::start()
{
    const UniqueFd file = helper_file();
    int pair[2];
    if (!file || ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
        return errno;
    UniqueFd ours(pair[0]);
    UniqueFd theirs(pair[1]);
    const LaunchFd fds[] = {{theirs.get(), wire::kStoreSocket}};
    char name[sizeof wire::kStoreName];
    std::memcpy(name, wire::kStoreName, sizeof name);
    char* const argv[] = {name, nullptr};
    char* const envp[] = {nullptr};
    UniqueFd pidfd;
    const pid_t pid =
        launch_helper({file.get(), 0, fds, wire::kStoreSocket + 1, argv, envp}, pidfd);
    if (pid < 0)
        return errno;
    theirs.reset();
    link_.adopt(pid, std::move(pidfd), std::move(ours));
    char line[64];
    const int len = std::snprintf(line, sizeof line, kLine, pid, process_start_time(pid));
    int error = kept_write(kRecord, {line, static_cast<std::size_t>(len)});
    if (error == 0)
        error = commit();
    if (error != 0)
        end();
    return error;
}

int KeepProcess::each(int (*visit)(int number, UniqueFd descriptor, void* context), void* context)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/fd", link_.pid());
    const znc::UniqueDir list(::opendir(path));
    int error = list ? 0 : errno;
    while (const dirent* entry = error == 0 ? znc::next_entry(list.get()) : nullptr) {
        int number = -1;
        if (std::sscanf(entry->d_name, "%d", &number) != 1 || number <= wire::kStoreOwner)
            continue;
        UniqueFd copy = copy_from(link_.pidfd(), number);
        error = copy ? visit(number, std::move(copy), context) : errno;
    }
    return error;
}

int KeepProcess::put(int descriptor, int& number)
{
    wire::Request request = {};
    request.op = wire::Op::kStore;
    std::uint64_t value = 0;
    const int error = link_.ask(request, {}, descriptor, &value);
    number = static_cast<int>(value);
    return error;
}

void KeepProcess::drop(int number)
{
    const znc::ErrnoSaver keep;
    link_.ask(wire::Op::kDrop, static_cast<std::uint64_t>(number));
}

void KeepProcess::end()
{
    const znc::ErrnoSaver keep;
    if (link_.pid() > 0) {
        process_signal(link_.pidfd(), SIGKILL);
        if (link_.ended(kEndMilliseconds))
            link_.reap();
    }
    link_ = Keeper();
    kept_remove(kRecord);
}

} // namespace zn
