// engine.cpp - creates containers of engines: control group, first process, root, mounts, devices.
#include "zarnel/engine.h"

#include "base/file.hpp"
#include "cgroup/cgroup.hpp"
#include "engine_cgroup.hpp"
#include "engine_reason.hpp"
#include "engine_settings.hpp"
#include "engine_socket.hpp"
#include "keeper_link.hpp"
#include "keeper_request.hpp"
#include "launch.hpp"
#include "ns_mount.hpp"
#include "ns_record.hpp"
#include "system/pidfd.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/mount.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr int kAnswerWait = 20000; // milliseconds; copies of mounts can take long under load

// A container that is being created. Unless it is kept, its process and group are removed.
class Creation {
  public:
    Creation(const ZN_ENGINE_PLAN& plan, Reason& reason) : plan_(plan), reason_(reason) {}
    ~Creation();
    Creation(const Creation&) = delete;
    Creation& operator=(const Creation&) = delete;

    int run();
    // Returns the descriptor that keeps the container alive.
    int keep(ZN_ENGINE_PROCESS& process);

  private:
    int make_group();
    int open_pid_namespace(UniqueFd& own);
    int launch();
    int launch_with(const UniqueFd& file, const UniqueFd& record, const UniqueFd& start);
    int ask(wire::Request request, const char* first = nullptr, const char* second = nullptr,
            int descriptor = -1, std::uint64_t* value = nullptr);
    int explain(int error);
    int join();
    int pivot();
    int mount_all();
    int mount_one(const ZN_ENGINE_MOUNT& mount);
    int attach(int mount, const char* destination);
    int mount_inner(const ZN_ENGINE_MOUNT& mount, const EngineMount& wanted);
    int mount_cgroup(const ZN_ENGINE_MOUNT& mount, const EngineMount& wanted);
    int make_devices();
    int make_terminal();
    int set_parameters();
    int restrict_paths(wire::Op op, const List<Text>& paths, const char* field);
    int find_program();

    const ZN_ENGINE_PLAN& plan_;
    Reason& reason_;
    EngineSettings settings_;
    UniqueFd root_;
    UniqueFd report_;
    UniqueFd control_; // a second descriptor of the socket, for keep()
    Keeper first_;
    bool hasGroup_ = false;
    bool kept_ = false;
};

Creation::~Creation()
{
    if (kept_)
        return;
    const znc::ErrnoSaver keep;
    if (first_.pid() > 0) {
        process_signal(first_.pidfd(), SIGKILL);
        process_reap(first_.pidfd());
    }
    start_socket_remove(plan_.directory);
    if (hasGroup_)
        cgroup_remove(plan_.group);
}

int Creation::make_group()
{
    if (cgroup_version() == CgroupVersion::kNone)
        return reason_.say(ENOTSUP, "linux.cgroupsPath: there are no control groups");
    if (settings_.complete_devices() != 0)
        return reason_.say_errno(ENOMEM, "linux.resources.devices");
    const char* field = nullptr;
    const int error = cgroup_create(plan_.group, settings_.resources(), &field);
    hasGroup_ = error == 0;
    return reason_.say_errno(error, "linux.%s%s", field != nullptr ? "resources." : "cgroupsPath",
                             field != nullptr ? field : "");
}

// Makes the PID namespace of the configuration that of the caller's next child.
int Creation::open_pid_namespace(UniqueFd& own)
{
    if (settings_.from(NsKind::kPid) != NsChoice::From::kPath)
        return 0;
    const char* path = settings_.path(NsKind::kPid);
    own.reset(::open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC));
    const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!own || !file || ::setns(file.get(), CLONE_NEWPID) != 0)
        return reason_.say_errno(errno, "linux.namespaces: %s", path);
    return 0;
}

int Creation::launch()
{
    const UniqueFd file = helper_file();
    const UniqueFd record = settings_.record(plan_.group, 0);
    const UniqueFd start = record ? start_socket_make(plan_.directory) : UniqueFd();
    if (!file || !record || !start)
        return reason_.say_errno(errno, "cannot prepare the first process");
    UniqueFd own;
    int error = open_pid_namespace(own);
    if (error == 0)
        error = launch_with(file, record, start);
    if (own && ::setns(own.get(), CLONE_NEWPID) != 0 && error == 0)
        error = reason_.say_errno(errno, "cannot leave the PID namespace");
    return error;
}

int Creation::launch_with(const UniqueFd& file, const UniqueFd& record, const UniqueFd& start)
{
    int pair[2];
    int pipes[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
        return reason_.say_errno(errno, "socketpair");
    UniqueFd ours(pair[0]);
    const UniqueFd theirs(pair[1]);
    if (::pipe2(pipes, O_CLOEXEC | O_NONBLOCK) != 0)
        return reason_.say_errno(errno, "pipe");
    report_.reset(pipes[0]);
    const UniqueFd writer(pipes[1]);
    ProgramArguments arguments;
    ProgramDescriptors fds;
    if (!arguments.make(wire::kInitName, plan_.program) ||
        !fds.make(plan_.program, {theirs.get(), writer.get(), record.get(), start.get()}))
        return reason_.say_errno(errno, "the program's arguments");
    UniqueFd pidfd;
    const pid_t pid = launch_helper({file.get(), settings_.clone_flags() | SIGCHLD, fds.all(),
                                     wire::kInitFdEnd + plan_.program.descriptors, arguments.argv(),
                                     plan_.program.envp},
                                    pidfd);
    if (pid < 0)
        return reason_.say_errno(errno, "cannot create the container's first process");
    control_.reset(::fcntl(ours.get(), F_DUPFD_CLOEXEC, 0));
    const bool good = static_cast<bool>(control_);
    first_.adopt(pid, std::move(pidfd), std::move(ours));
    return good ? 0 : reason_.say_errno(errno, "descriptors");
}

int Creation::ask(wire::Request request, const char* first, const char* second, int descriptor,
                  std::uint64_t* value)
{
    char text[8192];
    std::size_t len = 0;
    for (const char* part : {first, second}) {
        if (part == nullptr)
            continue;
        const std::size_t size = std::strlen(part) + 1;
        if (size > sizeof text - len)
            return ENAMETOOLONG;
        std::memcpy(text + len, part, size);
        len += size;
        request.textCount++;
    }
    request.textLen = static_cast<std::uint32_t>(len);
    return explain(first_.ask(request, {text, len}, descriptor, value, kAnswerWait));
}

// If the process has ended, its report says why.
int Creation::explain(int error)
{
    wire::SpawnReport report;
    if (error != ESRCH || !process_ended(first_.pidfd(), kAnswerWait) ||
        ::read(report_.get(), &report, sizeof report) != static_cast<ssize_t>(sizeof report))
        return error;
    return reason_.say_program(report.value, report.kind, plan_.program.argv[0], plan_.program.cwd);
}

wire::Request request_of(wire::Op op)
{
    wire::Request request = {};
    request.op = op;
    return request;
}

int Creation::join()
{
    for (const EngineNamespace& one : kEngineNamespace) {
        if (settings_.from(one.kind) != NsChoice::From::kPath)
            continue;
        const char* path = settings_.path(one.kind);
        const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
        wire::Request request = request_of(wire::Op::kJoin);
        request.value = one.flag;
        const int error = file ? ask(request, nullptr, nullptr, file.get()) : errno;
        if (error != 0)
            return reason_.say_errno(error, "linux.namespaces: %s: %s", one.name, path);
    }
    return 0;
}

int Creation::pivot()
{
    MountPlan plan;
    plan.recursive = true;
    const std::uint64_t wanted = settings_.settings().rootPropagation.value_or(MS_PRIVATE);
    plan.propagation = (wanted & MS_SLAVE) != 0 ? MS_SLAVE : MS_PRIVATE;
    const UniqueFd tree = detached_tree(plan_.root, plan, UserNamespace());
    if (!tree)
        return reason_.say_errno(errno, "cannot use the root filesystem %s", plan_.root);
    root_.reset(::fcntl(tree.get(), F_DUPFD_CLOEXEC, 0));
    wire::Request request = request_of(wire::Op::kPivot);
    request.value = (wanted & (MS_SHARED | MS_UNBINDABLE)) != 0 ? wanted : 0;
    const Text& host = settings_.settings().hostname;
    return reason_.say_errno(ask(request, host ? host.get() : "",
                                 plan_.domain != nullptr ? plan_.domain : "", tree.get()),
                             "cannot enter the root filesystem %s", plan_.root);
}

int Creation::attach(int mount, const char* destination)
{
    wire::Request request = request_of(wire::Op::kMountTree);
    request.isDirectory = znc::is_directory(mount) ? 1 : 0;
    return ask(request, destination, nullptr, mount);
}

int Creation::mount_inner(const ZN_ENGINE_MOUNT& mount, const EngineMount& wanted)
{
    wire::Request request = request_of(wire::Op::kMountFs);
    request.attributes = wanted.plan.attrSet;
    request.value = wanted.plan.propagation;
    const bool hasSource = mount.source != nullptr && *mount.source != '\0';
    char text[4096];
    const int start =
        std::snprintf(text, sizeof text, "%s%c%s%c%s%s", mount.destination, '\0', wanted.plan.type,
                      '\0', hasSource ? "source=" : "", hasSource ? mount.source : "");
    const auto len = static_cast<std::size_t>(start) + (hasSource ? 1 : 0);
    if (start < 0 || len + wanted.plan.optionsLen > sizeof text)
        return ENAMETOOLONG;
    std::memcpy(text + len, wanted.plan.options, wanted.plan.optionsLen);
    request.textLen = static_cast<std::uint32_t>(len + wanted.plan.optionsLen);
    request.textCount = 2 + (hasSource ? 1 : 0) + wanted.plan.optionCount;
    return explain(first_.ask(request, {text, request.textLen}, -1, nullptr, kAnswerWait));
}

int Creation::mount_cgroup(const ZN_ENGINE_MOUNT& mount, const EngineMount& wanted)
{
    List<CgroupMount> parts;
    int error = engine_cgroup_mounts(plan_.group, wanted, parts);
    for (std::size_t i = 0; i < parts.size() && error == 0; i++) {
        char path[4096];
        std::snprintf(path, sizeof path, "%s%s%s", mount.destination,
                      parts[i].name[0] != '\0' ? "/" : "", parts[i].name);
        error = attach(parts[i].mount.get(), path);
    }
    return error;
}

int Creation::mount_one(const ZN_ENGINE_MOUNT& mount)
{
    EngineMount wanted;
    const char* option = nullptr;
    int error = engine_mount_read(mount, wanted, &option);
    if (error != 0)
        return reason_.say(error, "mounts: %s: unknown option \"%s\"", mount.destination, option);
    const char* source = mount.source != nullptr ? mount.source : "";
    if (!wanted.plan.bind && std::strncmp(mount.type, "cgroup", 6) == 0) {
        error = mount_cgroup(mount, wanted);
    } else if (engine_mount_is_inner(wanted.plan)) {
        error = mount_inner(mount, wanted);
    } else {
        const UniqueFd made =
            engine_mount_make(wanted, mount.source, root_.get(), mount.destination);
        error = made ? attach(made.get(), mount.destination) : errno;
    }
    return reason_.say_errno(error, "error mounting \"%s\" to rootfs at \"%s\"",
                             wanted.plan.bind ? source : mount.type, mount.destination);
}

int Creation::mount_all()
{
    int error = 0;
    for (std::size_t i = 0; i < plan_.mountCount && error == 0; i++)
        error = mount_one(plan_.mounts[i]);
    return error;
}

// Whether the configuration provides /dev with all that belongs into it.
bool binds_dev(const ZN_ENGINE_PLAN& plan)
{
    for (std::size_t i = 0; i < plan.mountCount; i++) {
        EngineMount mount;
        const char* option = nullptr;
        const char* at = plan.mounts[i].destination;
        if ((std::strcmp(at, "/dev") == 0 || std::strcmp(at, "/dev/") == 0) &&
            engine_mount_read(plan.mounts[i], mount, &option) == 0 && mount.plan.bind)
            return true;
    }
    return false;
}

int Creation::make_devices()
{
    static constexpr struct {
        const char* path;
        std::uint32_t major;
        std::uint32_t minor;
    } kNodes[] = {{"/dev/null", 1, 3},   {"/dev/zero", 1, 5},    {"/dev/full", 1, 7},
                  {"/dev/random", 1, 8}, {"/dev/urandom", 1, 9}, {"/dev/tty", 5, 0}};
    static constexpr const char* kLinks[][2] = {
        {"/dev/fd", "/proc/self/fd"},       {"/dev/stdin", "/proc/self/fd/0"},
        {"/dev/stdout", "/proc/self/fd/1"}, {"/dev/stderr", "/proc/self/fd/2"},
        {"/dev/core", "/proc/kcore"},       {"/dev/ptmx", "pts/ptmx"}};
    if (binds_dev(plan_))
        return 0;
    for (const auto& node : kNodes) {
        wire::Request request = request_of(wire::Op::kDevice);
        request.node = {S_IFCHR | 0666, node.major, node.minor, 0, 0};
        if (const int error = ask(request, node.path); error != 0)
            return reason_.say_errno(error, "cannot create %s", node.path);
    }
    for (const Device& device : settings_.settings().devices)
        if (const int error = explain(keeper_make_device(first_, device, device.uid, device.gid));
            error != 0)
            return reason_.say_errno(error, "linux.devices: %s", device.path.get());
    for (const auto& link : kLinks)
        if (const int error = ask(request_of(wire::Op::kLink), link[0], link[1]); error != 0)
            return reason_.say_errno(error, "cannot create %s", link[0]);
    return 0;
}

int Creation::make_terminal()
{
    if (plan_.program.console < 0)
        return 0;
    wire::Request request = request_of(wire::Op::kTerminal);
    request.value =
        std::uint64_t{plan_.program.rows & 0xffff} << 16U | (plan_.program.columns & 0xffff);
    return reason_.say_errno(ask(request, nullptr, nullptr, plan_.program.console),
                             "cannot provide a terminal");
}

int Creation::set_parameters()
{
    for (const Sysctl& parameter : settings_.settings().sysctl)
        if (const int error = explain(keeper_set_parameter(first_, parameter)); error != 0)
            return reason_.say_errno(error, "linux.sysctl: %s", parameter.key.get());
    return 0;
}

// As many paths in each request as it has room for.
int Creation::restrict_paths(wire::Op op, const List<Text>& paths, const char* field)
{
    char text[8192];
    std::size_t len = 0;
    wire::Request request = request_of(op);
    for (std::size_t i = 0; i <= paths.size(); i++) {
        const std::size_t size = i < paths.size() ? std::strlen(paths[i].get()) + 1 : sizeof text;
        if (size > sizeof text - len && request.textCount > 0) {
            request.textLen = static_cast<std::uint32_t>(len);
            const int error = explain(first_.ask(request, {text, len}, -1, nullptr, kAnswerWait));
            if (error != 0)
                return reason_.say_errno(error, "%s", field);
            request.textCount = 0;
            len = 0;
        }
        if (i == paths.size())
            break;
        std::memcpy(text + len, paths[i].get(), size);
        len += size;
        request.textCount++;
    }
    return 0;
}

int Creation::find_program()
{
    std::uint64_t what = 0;
    const int error = ask(request_of(wire::Op::kFind), nullptr, nullptr, -1, &what);
    return error == 0 ? 0
                      : reason_.say_program(error, static_cast<wire::SpawnReport::Kind>(what),
                                            plan_.program.argv[0], plan_.program.cwd);
}

int Creation::run()
{
    SettingsFault fault;
    int error = reason_.say_fault(settings_.read(plan_.document, fault), fault);
    if (error == 0 && settings_.from(NsKind::kMount) != NsChoice::From::kNew)
        error = reason_.say(ENOTSUP, "linux.namespaces: a container needs a new mount namespace");
    const Settings& wanted = settings_.settings();
    if (error == 0)
        error = make_group();
    if (error == 0)
        error = launch();
    if (error == 0)
        error = join();
    if (error == 0)
        error = pivot();
    if (error == 0)
        error = mount_all();
    if (error == 0)
        error = make_devices();
    if (error == 0)
        error = make_terminal();
    if (error == 0)
        error = set_parameters();
    if (error == 0)
        error = find_program();
    if (error == 0)
        error = restrict_paths(wire::Op::kReadOnly, wanted.readonlyPaths, "linux.readonlyPaths");
    if (error == 0)
        error = restrict_paths(wire::Op::kHide, wanted.maskedPaths, "linux.maskedPaths");
    if (error == 0 && wanted.rootReadonly)
        error = reason_.say_errno(ask(request_of(wire::Op::kReadOnly), "/"), "root.readonly");
    return error;
}

int Creation::keep(ZN_ENGINE_PROCESS& process)
{
    process.pid = first_.pid();
    process.startTime = process_start_time(first_.pid());
    kept_ = true;
    return control_.release();
}

} // namespace
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
    errno = error;
    return -1;
}

STATUS znEngineRelease(int container, char* reason, size_t size)
{
    Reason said(reason, size);
    Keeper first;
    first.adopt(0, UniqueFd(), UniqueFd(container));
    const int error = first.ask(wire::Op::kWait);
    if (error == 0)
        return OK;
    said.say_errno(error, "the container's first process");
    errno = error;
    return ERROR;
}
