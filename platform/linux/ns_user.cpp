// ns_user.cpp - see ns_user.hpp.
#include "ns_user.hpp"

#include "base/file.hpp"
#include "helper/wire.hpp"
#include "launch.hpp"
#include "system/pidfd.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr std::size_t kLineMax = 40; // three numbers

// The kernel takes all mappings in one write.
int write_mappings(pid_t pid, const char* file, const List<IdMapping>& mappings)
{
    const std::size_t size = mappings.size() * kLineMax + 1;
    const auto text = znc::malloc_array<char>(size);
    if (!text)
        return ENOMEM;
    std::size_t len = 0;
    for (const IdMapping& one : mappings)
        len += static_cast<std::size_t>(std::snprintf(text.get() + len, size - len, "%u %u %u\n",
                                                      one.inside, one.outside, one.count));
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/%s", pid, file);
    const UniqueFd map(::open(path, O_WRONLY | O_CLOEXEC));
    return map && ::write(map.get(), text.get(), len) == static_cast<ssize_t>(len) ? 0 : errno;
}

// Waits until the holder cannot be inspected by processes in its namespace any more.
int tell_mapped(int socket)
{
    char byte = 0;
    if (::send(socket, &byte, sizeof byte, MSG_NOSIGNAL) != sizeof byte)
        return errno;
    constexpr int kWait = 20000;
    for (;;) {
        if (!readable_within(socket, kWait))
            return ETIMEDOUT;
        const ssize_t n = ::recv(socket, &byte, sizeof byte, 0);
        if (n == sizeof byte)
            return 0;
        if (n == 0)
            return ESRCH;
        if (errno != EINTR)
            return errno;
    }
}

} // namespace

int mappings_read(pid_t pid, const char* file, List<IdMapping>& mappings)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/%s", pid, file);
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> lines(std::fopen(path, "re"),
                                                                std::fclose);
    if (!lines)
        return errno;
    IdMapping one;
    while (std::fscanf(lines.get(), "%u %u %u", &one.inside, &one.outside, &one.count) == 3)
        if (mappings.append(one) == nullptr)
            return ENOMEM;
    return std::ferror(lines.get()) != 0 ? EIO : 0;
}

std::optional<std::uint32_t> mapped_id(const List<IdMapping>& mappings, std::uint32_t inside)
{
    for (const IdMapping& one : mappings)
        if (inside >= one.inside && inside - one.inside < one.count)
            return one.outside + (inside - one.inside);
    return std::nullopt;
}

bool maps_any(const List<IdMapping>& mappings, std::uint32_t first, std::uint32_t count)
{
    for (const IdMapping& one : mappings)
        if (one.outside < std::uint64_t{first} + count &&
            first < std::uint64_t{one.outside} + one.count)
            return true;
    return false;
}

UserNamespace::~UserNamespace()
{
    const znc::ErrnoSaver keep;
    if (pid_ <= 0)
        return;
    process_signal(pidfd_.get(), SIGKILL);
    process_reap(pidfd_.get());
}

int UserNamespace::start(const List<IdMapping>& uids, const List<IdMapping>& gids,
                         unsigned long namespaces)
{
    const UniqueFd file = helper_file();
    int ends[2];
    if (!file || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return errno;
    UniqueFd theirs(ends[0]);
    alive_.reset(ends[1]);
    const LaunchFd fds[] = {{theirs.get(), wire::kHolderSocket}};
    char name[sizeof wire::kHolderName];
    std::memcpy(name, wire::kHolderName, sizeof name);
    char* const argv[] = {name, nullptr};
    char* const envp[] = {nullptr};
    pid_ = launch_helper(
        {file.get(), CLONE_NEWUSER | namespaces, fds, wire::kHolderSocket + 1, argv, envp}, pidfd_);
    if (pid_ < 0)
        return errno;
    theirs.reset();
    uids_ = &uids;
    gids_ = &gids;
    int error = write_mappings(pid_, "uid_map", uids);
    if (error == 0)
        error = write_mappings(pid_, "gid_map", gids);
    return error != 0 ? error : tell_mapped(alive_.get());
}

void UserNamespace::adopt(pid_t pid, UniqueFd pidfd, UniqueFd alive, const List<IdMapping>& uids,
                          const List<IdMapping>& gids)
{
    pid_ = pid;
    pidfd_ = std::move(pidfd);
    alive_ = std::move(alive);
    uids_ = &uids;
    gids_ = &gids;
}

UniqueFd UserNamespace::open_namespace() const
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/ns/user", pid_);
    return UniqueFd(::open(path, O_RDONLY | O_CLOEXEC));
}

std::optional<std::uint32_t> UserNamespace::host_uid(std::uint32_t uid) const
{
    return uids_ == nullptr ? uid : mapped_id(*uids_, uid);
}

std::optional<std::uint32_t> UserNamespace::host_gid(std::uint32_t gid) const
{
    return gids_ == nullptr ? gid : mapped_id(*gids_, gid);
}

} // namespace zn
