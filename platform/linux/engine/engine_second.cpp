// engine_second.cpp - a container in a user, time or joined PID namespace, or with groups of cgroup
// v2 only: its first process is created by another one, and with a user namespace a third one makes
// its root with the rights of the host.
#include "engine_creation.hpp"
#include "engine_join.hpp"
#include "engine_socket.hpp"

#include "system/pidfd.hpp"

#include <cerrno>
#include <csignal>
#include <iterator>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

namespace zn {

using znc::UniqueFd;

namespace {

// Ends the process and the one that it may have created without reporting it: the first process of
// a PID namespace cannot end while a process in it has not been reaped.
void end_group(pid_t pid, const UniqueFd& pidfd)
{
    process_signal(pidfd.get(), SIGKILL);
    ::kill(-pid, SIGKILL); // the id is not reused: the process has not been reaped
    process_reap(pidfd.get());
    while (::waitid(P_PGID, static_cast<id_t>(pid), nullptr, WEXITED) == 0 || errno == EINTR) {
    }
}

} // namespace

// Takes over the process that `pid` creates and reports. 0, or an error number with the reason
// said.
int Creation::adopt_created(pid_t pid, UniqueFd pidfd, UniqueFd socket, Keeper& process)
{
    // Wait for the report or the end: the process sends the report, if any, before it ends.
    pollfd events[] = {{report_.get(), POLLIN, 0}, {pidfd.get(), POLLIN, 0}};
    wire::SpawnReport report = {};
    const bool said =
        ::poll(events, std::size(events), kAnswerWait) > 0 &&
        ::read(report_.get(), &report, sizeof report) == static_cast<ssize_t>(sizeof report);
    if (!said || report.kind != wire::SpawnReport::Kind::kPid) {
        end_group(pid, pidfd);
        return reason_.say_errno(said ? report.value : ESRCH,
                                 "cannot create the process %d of the container", pid);
    }
    process_reap(pidfd.get());
    UniqueFd created = process_open(report.value);
    if (!created)
        return reason_.say_errno(errno, "cannot create the container's first process");
    process.adopt(report.value, std::move(created), std::move(socket));
    return 0;
}

int Creation::launch_maker()
{
    constexpr unsigned long kJoined =
        CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWNET | CLONE_NEWCGROUP;
    if (const int error = user_.read_mappings(first_.pid()); error != 0)
        return reason_.say_errno(error, "linux.uidMappings");
    const auto uid = user_.host_uid(0);
    const auto gid = user_.host_gid(0);
    if (!uid || !gid)
        return reason_.say(EINVAL, "linux.namespaces: user: the container's user 0 is not mapped");
    UniqueFd before = std::move(report_);
    Channels channels;
    if (const int error = open_channels(channels); error != 0)
        return error;
    const UniqueFd file = helper_file();
    const UniqueFd record = settings_.record("", namespaces_to_join(first_.pid(), kJoined));
    ZN_ENGINE_PROGRAM program = plan_.program;
    program.descriptors = 0;
    ProgramArguments arguments;
    ProgramDescriptors fds;
    if (!file || !record || !arguments.make(wire::kMakerName, program) ||
        !fds.make(program, {channels.theirs.get(), channels.report.get(), record.get(), -1,
                            first_.pidfd(), -1}))
        return reason_.say_errno(errno, "cannot prepare a process");
    UniqueFd pidfd;
    const pid_t pid = launch_helper(
        {file.get(), SIGCHLD, fds.all(), wire::kInitFdEnd, arguments.argv(), program.envp}, pidfd);
    // With the only other ends in the process, its end is noticed.
    channels.theirs.reset();
    channels.report.reset();
    int error = pid < 0 ? reason_.say_errno(errno, "cannot create a process")
                        : adopt_created(pid, std::move(pidfd), std::move(channels.ours), maker_);
    report_ = std::move(before);
    if (error == 0) {
        wire::Request request = request_of(wire::Op::kOwner);
        request.node.uid = *uid;
        request.node.gid = *gid;
        error = reason_.say_errno(ask(request), "linux.uidMappings");
    }
    return error;
}

// Hard limits can be raised with the rights of the host only.
int Creation::set_limits()
{
    for (const Rlimit& limit : settings_.settings().rlimits) {
        const struct rlimit wanted = {limit.soft, limit.hard};
        if (::prlimit(first_.pid(), static_cast<__rlimit_resource>(limit.resource), &wanted,
                      nullptr) != 0)
            return reason_.say_errno(errno, "process.rlimits");
    }
    return 0;
}

int Creation::enter_own_mounts()
{
    struct stat root = {};
    if (::fstat(root_.get(), &root) != 0)
        return reason_.say_errno(errno, "%s", plan_.root);
    wire::Request request = request_of(wire::Op::kOwnMounts);
    request.value = root.st_ino;
    request.attributes = std::uint64_t{major(root.st_dev)} << 32U | minor(root.st_dev);
    int error =
        reason_.say_errno(ask(first_, request), "cannot enter the root filesystem %s", plan_.root);
    if (error == 0)
        error = make_terminal();
    if (error == 0)
        error = find_program(first_);
    if (error == 0)
        error = set_limits();
    // The maker ends after this request.
    return error == 0 ? reason_.say_errno(ask(maker_, request_of(wire::Op::kWait)), "zn-make")
                      : error;
}

} // namespace zn
