// engine.cpp - creates containers of engines: control group and first process. The requests that
// set up the root are in engine_root.cpp.
#include "zarnel/engine.h"

#include "base/failure.hpp"
#include "cgroup/cgroup_known.hpp"
#include "engine_creation.hpp"
#include "engine_join.hpp"
#include "engine_socket.hpp"
#include "keeper_request.hpp"
#include "launch.hpp"
#include "ns_record.hpp"
#include "system/own_namespace.hpp"
#include "system/pidfd.hpp"

#include <cerrno>
#include <fcntl.h>
#include <linux/nsfs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace zn {

using znc::UniqueFd;

namespace {

// The first process of a PID namespace ends after all others have been reaped: those that were
// created from outside first.
void end_process(Keeper& process)
{
    if (process.pid() <= 0)
        return;
    process_signal(process.pidfd(), SIGKILL);
    process_reap(process.pidfd());
    process.adopt(-1, UniqueFd(), UniqueFd());
}

} // namespace

Creation::~Creation()
{
    if (kept_)
        return;
    const znc::ErrnoSaver keep;
    end_process(maker_);
    end_process(first_);
    start_socket_remove(plan_.directory);
    if (hasGroup_)
        cgroup_remove(plan_.group);
}

// Without a new UTS namespace, setting a host name would change that of the caller.
int Creation::check_names()
{
    const NsChoice::From from = settings_.from(NsKind::kUts);
    const Text& host = settings_.settings().hostname;
    const bool isNamed = (host && *host.get() != '\0') || plan_.domain != nullptr;
    const bool isShared =
        from == NsChoice::From::kHost ||
        (from == NsChoice::From::kPath && is_own_namespace(settings_.path(NsKind::kUts), "uts"));
    if (!isNamed || !isShared)
        return 0;
    return reason_.say(EINVAL, "%s: the container shares the uts namespace of the host",
                       plan_.domain != nullptr ? "domainname" : "hostname");
}

int Creation::make_group()
{
    const char* field = nullptr;
    // The kernel lets only root of the host restrict devices. Others cannot create device nodes, so
    // that there are none but those that are bound.
    const bool hasGroup = *plan_.group != '\0';
    if (rootless_ || !hasGroup)
        settings_.drop_devices();
    else if (settings_.complete_devices() != 0)
        return reason_.say_errno(ENOMEM, "linux.resources.devices");
    if (!hasGroup && cgroup_without(settings_.resources(), &field) != 0)
        return reason_.say(ENOTSUP, "linux.resources.%s: the container has no control group",
                           field != nullptr ? field : "");
    if (!hasGroup)
        return 0;
    const bool isPlaced = plan_.place != nullptr;
    if (isPlaced ? !rootless_ && cgroup_version() == CgroupVersion::kNone
                 : !cgroup_may_create(plan_.group))
        return reason_.say(ENOTSUP, "linux.cgroupsPath: there are no control groups");
    if (isPlaced)
        return 0; // when the first process exists
    if (cgroup_version() == CgroupVersion::kV2)
        settings_.create_in_group();
    int error = cgroup_create(plan_.group, settings_.resources(), &field);
    hasGroup_ = error == 0;
    return finish_group(error, field);
}

int Creation::finish_group(int error, const char* field)
{
    if (error == 0 && plan_.mark != nullptr)
        error = cgroup_mark(plan_.group, plan_.mark);
    return reason_.say_errno(error, "linux.%s%s", field != nullptr ? "resources." : "cgroupsPath",
                             field != nullptr ? field : "");
}

// Lets the caller create the group around the process, which waits, and completes the group.
int Creation::place(pid_t pid, int socket)
{
    const ZN_ENGINE_PROCESS process = {pid, process_start_time(pid)};
    if (plan_.place(&process, plan_.placeContext) != OK)
        return reason_.say(ECANCELED, "linux.cgroupsPath: the control group was not created");
    hasGroup_ = true;
    const char* field = nullptr;
    int error = cgroup_complete(plan_.group, pid, settings_.resources(), &field);
    error = finish_group(error, field);
    const char go = 1;
    if (error == 0 && ::send(socket, &go, sizeof go, MSG_NOSIGNAL) != sizeof go)
        return reason_.say_errno(errno, "the container's first process");
    return error;
}

// Opens the PID namespace to be joined. Not this process but the helper joins it, before it creates
// the first process: a container must not see a process that still shares this program's memory or
// runs its executable file.
int Creation::open_pid_namespace()
{
    if (settings_.from(NsKind::kPid) != NsChoice::From::kPath)
        return 0;
    const char* path = settings_.path(NsKind::kPid);
    pidNamespace_.reset(::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    int error = pidNamespace_ ? 0 : errno;
    if (error == 0 && ::ioctl(pidNamespace_.get(), NS_GET_NSTYPE) != CLONE_NEWPID)
        error = EINVAL;
    return reason_.say_errno(error, "linux.namespaces: pid: %s", path);
}

int Creation::make_processes()
{
    const KnownHierarchies known; // so that they are looked for once
    int error = make_group();
    if (error == 0)
        error = launch();
    return error == 0 && user_ ? launch_maker() : error;
}

int Creation::launch()
{
    const UniqueFd file = helper_file();
    const bool placed = plan_.place != nullptr;
    const UniqueFd record = settings_.record(placed ? "" : plan_.group, 0, placed);
    const UniqueFd start = record ? start_socket_make(plan_.directory) : UniqueFd();
    if (!file || !record || !start)
        return reason_.say_errno(errno, "cannot prepare the first process");
    if (const int error = user_.open(settings_.settings()); error != 0)
        return reason_.say_errno(error, "linux.namespaces: user");
    // Children are created in the namespaces that are joined here.
    JoinedNamespaces joined;
    int error = open_pid_namespace();
    if (error == 0)
        error = joined.enter(settings_, reason_);
    if (error == 0)
        error = launch_with(file, record, start, joined.left_to_child());
    const int left = joined.leave();
    return error != 0 ? error : reason_.say_errno(left, "cannot leave the namespaces");
}

int Creation::open_channels(Channels& channels)
{
    int pair[2];
    int pipes[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
        return reason_.say_errno(errno, "socketpair");
    channels.ours.reset(pair[0]);
    channels.theirs.reset(pair[1]);
    if (::pipe2(pipes, O_CLOEXEC | O_NONBLOCK) != 0)
        return reason_.say_errno(errno, "pipe");
    report_.reset(pipes[0]);
    channels.report.reset(pipes[1]);
    return 0;
}

int Creation::launch_with(const UniqueFd& file, const UniqueFd& record, const UniqueFd& start,
                          std::span<const LaunchNamespace> joined)
{
    Channels channels;
    if (const int error = open_channels(channels); error != 0)
        return error;
    ProgramArguments arguments;
    ProgramDescriptors fds;
    if (!arguments.make(wire::kInitName, plan_.program) ||
        !fds.make(plan_.program, {channels.theirs.get(), channels.report.get(), record.get(),
                                  start.get(), user_.get(), pidNamespace_.get()}))
        return reason_.say_errno(errno, "the program's arguments");
    UniqueFd pidfd;
    const pid_t pid = launch_helper({file.get(), settings_.clone_flags() | SIGCHLD, fds.all(),
                                     wire::kInitFdEnd + plan_.program.descriptors, arguments.argv(),
                                     plan_.program.envp, -1, 0, joined},
                                    pidfd);
    if (pid < 0)
        return reason_.say_errno(errno, "cannot create the container's first process");
    control_.reset(::fcntl(channels.ours.get(), F_DUPFD_CLOEXEC, 0));
    if (!control_)
        return reason_.say_errno(errno, "descriptors");
    if (plan_.place != nullptr)
        if (const int error = place(pid, channels.ours.get()); error != 0) {
            process_signal(pidfd.get(), SIGKILL);
            process_reap(pidfd.get());
            return error;
        }
    if (settings_.created_flags() != 0)
        return adopt_created(pid, std::move(pidfd), std::move(channels.ours), first_);
    first_.adopt(pid, std::move(pidfd), std::move(channels.ours));
    return 0;
}

int Creation::ask(wire::Request request, std::initializer_list<const char*> texts, int descriptor,
                  std::uint64_t* value)
{
    return ask(maker(), request, texts, descriptor, value);
}

int Creation::ask(Keeper& process, wire::Request request, std::initializer_list<const char*> texts,
                  int descriptor, std::uint64_t* value)
{
    RequestText text;
    if (!text.add_all(texts))
        return ENAMETOOLONG;
    return explain(process.ask(text.of(request), text.all(), descriptor, value, kAnswerWait),
                   process);
}

int Creation::post(wire::Request request, std::initializer_list<const char*> texts, int descriptor,
                   const Posted& posted)
{
    RequestText text;
    return text.add_all(texts) ? post(text.of(request), text.all(), descriptor, posted)
                               : ENAMETOOLONG;
}

int Creation::post(const wire::Request& request, std::span<const char> text, int descriptor,
                   const Posted& posted)
{
    int error = rootless_ || postedCount_ == posted_.size()
                    ? EAGAIN
                    : maker().post(request, text, descriptor);
    if (error == EAGAIN) {
        error = settle();
        return error != 0 ? error
                          : explain(maker().ask(request, text, descriptor, nullptr, kAnswerWait));
    }
    if (error == 0)
        posted_[postedCount_++] = posted;
    return explain(error);
}

int Creation::settle()
{
    const std::size_t count = std::exchange(postedCount_, 0);
    if (count == 0)
        return 0;
    std::size_t failed = 0;
    const int error = explain(maker().settle(failed, kSettleWait));
    if (error != 0 && failed >= count)
        return reason_.say_errno(error, "mounts and devices");
    return error == 0 ? 0 : say_posted(error, posted_[failed]);
}

int Creation::explain(int error)
{
    return explain(error, maker());
}

// If the first process has ended, its report says why, or else how it ended.
int Creation::explain(int error, const Keeper& process)
{
    wire::SpawnReport report;
    if (error != ESRCH || &process != &first_)
        return error;
    end_process(maker_);
    if (!process_ended(first_.pidfd(), kAnswerWait))
        return error;
    if (::read(report_.get(), &report, sizeof report) != static_cast<ssize_t>(sizeof report))
        return reason_.say_first(error, first_.pidfd());
    return reason_.say_program(report.value, report.kind, plan_.program.argv[0], plan_.program.cwd);
}

int Creation::find_program(Keeper& process)
{
    std::uint64_t what = 0;
    const int error = ask(process, request_of(wire::Op::kFind), {}, -1, &what);
    return error == 0 ? 0
                      : reason_.say_program(error, static_cast<wire::SpawnReport::Kind>(what),
                                            plan_.program.argv[0], plan_.program.cwd);
}

int Creation::run()
{
    if (::geteuid() != 0)
        return reason_.say(EPERM,
                           "must run as root, or as root of a user namespace (see unshare -r)");
    SettingsFault fault;
    int error = reason_.say_fault(settings_.read(plan_.document, fault), fault);
    rootless_ = settings_.is_rootless();
    if (error == 0 && settings_.from(NsKind::kMount) != NsChoice::From::kNew)
        error = reason_.say(ENOTSUP, "linux.namespaces: a container needs a new mount namespace");
    const Settings& wanted = settings_.settings();
    if (error == 0)
        error = check_names();
    if (error == 0)
        error = make_processes();
    if (error == 0)
        error = pivot();
    if (error == 0)
        error = mount_all();
    if (error == 0)
        error = make_devices();
    if (error == 0 && !user_)
        error = make_terminal();
    if (error == 0)
        error = set_parameters();
    if (error == 0)
        error = run_hooks();
    if (error == 0)
        error = find_program(maker());
    if (error == 0)
        error = restrict_paths(wire::Op::kReadOnly, wanted.readonlyPaths, "linux.readonlyPaths");
    if (error == 0)
        error = restrict_paths(wire::Op::kHide, wanted.maskedPaths, "linux.maskedPaths");
    if (error == 0 && devReadOnly_)
        error = make_read_only("/dev", wire::kReadOnlyMount, "mounts: /dev: read-only");
    if (error == 0 && wanted.rootReadonly)
        error = make_read_only("/", 0, "root.readonly");
    if (error == 0)
        error = settle();
    if (error == 0 && user_)
        error = enter_own_mounts();
    return error;
}

int Creation::keep(ZN_ENGINE_PROCESS& process)
{
    process.pid = first_.pid();
    process.startTime = process_start_time(first_.pid());
    kept_ = true;
    end_process(maker_);
    return control_.release();
}

} // namespace zn

using namespace zn;

STATUS znEngineCheck(const char* document, char* reason, size_t size)
{
    Reason said(reason, size);
    EngineSettings settings;
    SettingsFault fault;
    const int error = said.say_fault(settings.read(document, fault), fault);
    errno = error != 0 ? error : errno;
    return error == 0 ? OK : ERROR;
}

BOOL znEngineCapabilityKnown(const char* name)
{
    return capability_is_known(name) ? TRUE : FALSE;
}

int znEngineCreate(const ZN_ENGINE_PLAN* plan, ZN_ENGINE_PROCESS* process, char* reason,
                   size_t size)
{
    Reason said(reason, size);
    Creation creation(*plan, said);
    const int error = creation.run();
    if (error == 0)
        return creation.keep(*process);
    said.say_errno(error, "cannot create the container");
    return znc::fail(error);
}

STATUS znEngineRelease(int container, const ZN_ENGINE_PROCESS* process, char* reason, size_t size)
{
    Reason said(reason, size);
    Keeper first;
    first.adopt(process->pid, engine_process_open(*process), UniqueFd(container));
    const int error = first.ask(wire::Op::kWait);
    if (error == 0)
        return OK;
    said.say_first(error, first.pidfd());
    return znc::fail(error);
}
