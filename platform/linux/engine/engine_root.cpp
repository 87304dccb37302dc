// engine_root.cpp - asks the first process of a container to make its root: mounts, devices,
// terminal, kernel parameters, hidden and read-only paths.
#include "engine_cgroup.hpp"
#include "engine_creation.hpp"
#include "engine_socket.hpp"

#include "base/file.hpp"
#include "keeper_request.hpp"
#include "ns_kinds.hpp"
#include "ns_mount.hpp"
#include "ns_record.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/mount.h>
#include <string_view>
#include <sys/mount.h>
#include <sys/stat.h>

namespace zn {

using znc::UniqueFd;

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
    request.value = shared_propagation();
    const Text& host = settings_.settings().hostname;
    return reason_.say_errno(
        ask(request,
            {host ? host.get() : "", plan_.domain != nullptr ? plan_.domain : "",
             plan_.prepared != nullptr || rootless_ ? plan_.root : ""},
            tree.get()),
        "cannot enter the root filesystem %s", plan_.root);
}

// The MS_ bits to be applied to the root once it is the root; 0: none.
std::uint64_t Creation::shared_propagation() const
{
    const std::uint64_t wanted = settings_.settings().rootPropagation.value_or(MS_PRIVATE);
    return (wanted & (MS_SHARED | MS_UNBINDABLE)) != 0 ? wanted : 0;
}

// In a user namespace, the kernel mounts a procfs or sysfs only while the mount namespace shows one
// whole: until all is mounted, the host's tree stays there, as it does for hooks.
int Creation::run_hooks()
{
    if (plan_.prepared == nullptr && !rootless_)
        return 0;
    const ZN_ENGINE_PROCESS process = {first_.pid(), process_start_time(first_.pid())};
    if (plan_.prepared != nullptr && plan_.prepared(&process, plan_.context) != OK)
        return reason_.say(ECANCELED, "a hook failed");
    wire::Request request = request_of(wire::Op::kSwitch);
    request.value = shared_propagation();
    return reason_.say_errno(ask(request), "cannot enter the root filesystem %s", plan_.root);
}

int Creation::attach(int made, const char* destination, const ZN_ENGINE_MOUNT& mount)
{
    wire::Request request = request_of(wire::Op::kMountTree);
    request.isDirectory = znc::is_directory(made) ? 1 : 0;
    return post(request, {destination}, made, {&mount});
}

int Creation::mount_inner(const ZN_ENGINE_MOUNT& mount, const EngineMount& wanted)
{
    wire::Request request = request_of(wire::Op::kMountFs);
    // A new mount has none below it: flags for the whole tree are flags of the mount.
    request.attributes = (wanted.plan.attrSet & ~wanted.whole.attrClear) | wanted.whole.attrSet;
    request.value = wanted.plan.propagation;
    const bool hasSource = mount.source != nullptr && *mount.source != '\0';
    const MountPlan& plan = wanted.plan;
    RequestText text;
    if (!text.add_all({mount.destination, plan.type}) ||
        (hasSource && !text.add(mount.source, "source=")) ||
        !text.add({plan.options, plan.optionsLen}, plan.optionCount))
        return ENAMETOOLONG;
    return post(text.of(request), text.all(), -1, {&mount});
}

int Creation::mount_cgroup(const ZN_ENGINE_MOUNT& mount, const EngineMount& wanted)
{
    if (*plan_.group == '\0') { // there is no group to be shown: an empty directory
        EngineMount empty = wanted;
        empty.plan.type = "tmpfs";
        empty.plan.optionsLen = 0;
        empty.plan.optionCount = 0;
        empty.plan.attrSet |= MOUNT_ATTR_RDONLY;
        const UniqueFd made = engine_mount_make(empty, "cgroup", -1, nullptr);
        return made ? attach(made.get(), mount.destination, mount) : errno;
    }
    List<CgroupMount> parts;
    int error = engine_cgroup_mounts(plan_.group, wanted, parts);
    for (std::size_t i = 0; i < parts.size() && error == 0; i++) {
        char path[4096];
        std::snprintf(path, sizeof path, "%s%s%s", mount.destination,
                      parts[i].name[0] != '\0' ? "/" : "", parts[i].name);
        error = attach(parts[i].mount.get(), path, mount);
    }
    return error;
}

// File systems that keep no files of their own have no labels of files.
bool Creation::label(EngineMount& wanted) const
{
    const Text& label = settings_.settings().mountLabel;
    if (!has_label(label) || wanted.plan.bind || engine_mount_is_inner(wanted.plan) ||
        std::strncmp(wanted.plan.type, "cgroup", 6) == 0)
        return true;
    char option[sizeof wanted.plan.options];
    const int len = std::snprintf(option, sizeof option, "context=%s", label.get());
    return len > 0 && static_cast<std::size_t>(len) < sizeof option &&
           mount_plan_keep(option, wanted.plan);
}

namespace {

int add_ids(const ZN_ENGINE_IDS* ids, std::size_t count, List<IdMapping>& mappings)
{
    for (std::size_t i = 0; i < count; i++)
        if (mappings.append({ids[i].inside, ids[i].outside, ids[i].count}) == nullptr)
            return ENOMEM;
    return 0;
}

} // namespace

// The owners that a mount shows: those of its own mappings or of the container.
int Creation::choose_owners(const ZN_ENGINE_MOUNT& mount, EngineMount& wanted, UniqueFd& own)
{
    if (!wanted.plan.mapped)
        return 0;
    const char* at = mount.destination;
    if (!wanted.plan.bind)
        return reason_.say(ENOTSUP, "mounts: %s: only binds can have other owners", at);
    wanted.owners = user_.get();
    if (mount.uidCount == 0 && mount.gidCount == 0)
        return user_ ? 0
                     : reason_.say(EINVAL, "mounts: %s: needs mappings or a user namespace", at);
    if (mount.uidCount == 0 || mount.gidCount == 0)
        return reason_.say(EINVAL, "mounts: %s: needs both uidMappings and gidMappings", at);
    List<IdMapping> uids;
    List<IdMapping> gids;
    UserNamespace mapping;
    int error = add_ids(mount.uids, mount.uidCount, uids);
    if (error == 0)
        error = add_ids(mount.gids, mount.gidCount, gids);
    if (error == 0)
        error = mapping.start(uids, gids, 0);
    if (error == 0) {
        own = mapping.open_namespace();
        error = own ? 0 : errno;
    }
    wanted.owners = own.get();
    return reason_.say_errno(error, "mounts: %s: uidMappings, gidMappings", at);
}

namespace {

// Whether a path is "/dev", however it is written: "//dev/.".
bool is_dev(std::string_view path)
{
    bool found = false;
    while (!path.empty()) {
        const std::string_view name = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(name.size() + 1, path.size()));
        if (name.empty() || name == ".")
            continue;
        if (found || name != "dev")
            return false;
        found = true;
    }
    return found;
}

// Takes the attribute "read-only" away. Whether it was there.
bool take_read_only(EngineMount& mount)
{
    const bool had = ((mount.plan.attrSet | mount.whole.attrSet) & MOUNT_ATTR_RDONLY) != 0;
    mount.plan.attrSet &= ~std::uint64_t{MOUNT_ATTR_RDONLY};
    mount.whole.attrSet &= ~std::uint64_t{MOUNT_ATTR_RDONLY};
    return had;
}

} // namespace

int Creation::mount_one(const ZN_ENGINE_MOUNT& mount)
{
    EngineMount wanted;
    const char* option = nullptr;
    int error = engine_mount_read(mount, wanted, &option);
    if (error != 0)
        return reason_.say(error, "mounts: %s: unknown option \"%s\"", mount.destination, option);
    // Devices and mount points are still to be created in it.
    if (!wanted.plan.bind && is_dev(mount.destination))
        devReadOnly_ = take_read_only(wanted);
    UniqueFd owners;
    error = choose_owners(mount, wanted, owners);
    if (error != 0)
        return error;
    error = drop_unmapped_group(wanted);
    if (error == 0)
        error = user_.map_options(wanted.plan);
    if (error != 0)
        return reason_.say_errno(error, "mounts: %s: owner", mount.destination);
    if (!label(wanted))
        return reason_.say_errno(ENAMETOOLONG, "linux.mountLabel");
    if (!wanted.plan.bind && std::strncmp(mount.type, "cgroup", 6) == 0) {
        error = mount_cgroup(mount, wanted);
    } else if (engine_mount_is_inner(wanted.plan)) {
        error = mount_inner(mount, wanted);
        if (error == EPERM && rootless_)
            error = bind_of_host(mount, wanted);
    } else {
        if (wanted.copyUp) // of what is there after the mounts before it
            error = settle();
        UniqueFd made;
        if (error == 0)
            made = engine_mount_make(wanted, mount.source, root_.get(), mount.destination);
        if (error == 0)
            error = made ? attach(made.get(), mount.destination, mount) : errno;
    }
    if (error == 0)
        return 0;
    const int earlier = settle();
    return earlier != 0 ? earlier : say_mount(error, mount, wanted);
}

int Creation::say_mount(int error, const ZN_ENGINE_MOUNT& mount, const EngineMount& wanted)
{
    if (error == EPERM && rootless_ && wanted.plan.mapped)
        return reason_.say(error, "mounts: %s: only root of the host can map owners of this mount",
                           mount.destination);
    if (error == ELOOP && engine_mount_is_inner(wanted.plan))
        return reason_.say(error, "%s: %s must be mounted on ordinary directory", mount.destination,
                           mount.type);
    const char* const source = mount.source != nullptr ? mount.source : "";
    return reason_.say_errno(error, "error mounting \"%s\" to rootfs at \"%s\"",
                             wanted.plan.bind ? source : mount.type, mount.destination);
}

int Creation::say_posted(int error, const Posted& posted)
{
    if (posted.field != nullptr)
        return reason_.say_errno(error, "%s", posted.field);
    if (posted.mount == nullptr)
        return reason_.say_errno(error, "cannot create %s", posted.path);
    EngineMount wanted;
    const char* option = nullptr;
    static_cast<void>(engine_mount_read(*posted.mount, wanted, &option)); // it was read before
    return say_mount(error, *posted.mount, wanted);
}

int Creation::mount_all()
{
    int error = 0;
    for (std::size_t i = 0; i < plan_.mountCount && error == 0; i++)
        error = mount_one(plan_.mounts[i]);
    return error;
}

namespace {

// Whether the configuration binds a directory to /dev, which then provides all devices.
bool binds_dev(const ZN_ENGINE_PLAN& plan)
{
    for (std::size_t i = 0; i < plan.mountCount; i++) {
        EngineMount mount;
        const char* option = nullptr;
        if (is_dev(plan.mounts[i].destination) &&
            engine_mount_read(plan.mounts[i], mount, &option) == 0 && mount.plan.bind)
            return true;
    }
    return false;
}

} // namespace

int Creation::make_device(const Device& device)
{
    if (rootless_ && device.type != 'p')
        return bind_device(device.path.get(), {device.type == 'b' ? S_IFBLK + 0U : S_IFCHR + 0U,
                                               device.major, device.minor, 0, 0});

    const auto uid = user_.host_uid(device.uid);
    const auto gid = user_.host_gid(device.gid);
    return uid && gid ? explain(keeper_make_device(maker(), device, *uid, *gid)) : EINVAL;
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
        return settle();
    for (const auto& node : kNodes) {
        wire::Request request = request_of(wire::Op::kDevice);
        request.node = {S_IFCHR | 0666, node.major, node.minor, user_.host_uid(0).value_or(0),
                        user_.host_gid(0).value_or(0)};
        const int error = rootless_ ? bind_device(node.path, request.node)
                                    : post(request, {node.path}, -1, {nullptr, node.path});
        if (error != 0)
            return reason_.say_errno(error, "cannot create %s", node.path);
    }
    const List<Device>& devices = settings_.settings().devices;
    if (const int error = devices.empty() ? 0 : settle(); error != 0)
        return error;
    for (const Device& device : devices)
        if (const int error = make_device(device); error != 0)
            return reason_.say_errno(error, "linux.devices: %s", device.path.get());
    for (const auto& link : kLinks)
        if (const int error =
                post(request_of(wire::Op::kLink), {link[0], link[1]}, -1, {nullptr, link[0]});
            error != 0)
            return reason_.say_errno(error, "cannot create %s", link[0]);
    return settle();
}

int Creation::make_terminal()
{
    if (plan_.program.console < 0)
        return 0;
    wire::Request request = request_of(wire::Op::kTerminal);
    request.value = terminal_size(plan_.program);
    return reason_.say_errno(ask(first_, request, {}, plan_.program.console),
                             "cannot provide a terminal");
}

int Creation::set_parameters()
{
    for (const Sysctl& parameter : settings_.settings().sysctl)
        if (const int error = explain(keeper_set_parameter(maker(), parameter)); error != 0)
            return reason_.say_errno(error, "linux.sysctl: %s", parameter.key.get());
    return 0;
}

int Creation::make_read_only(const char* path, std::uint64_t value, const char* field)
{
    wire::Request request = request_of(wire::Op::kReadOnly);
    request.value = value;
    return reason_.say_errno(post(request, {path}, -1, {nullptr, nullptr, field}), "%s", field);
}

// Sends as many paths in each request as fit.
int Creation::restrict_paths(wire::Op op, const List<Text>& paths, const char* field)
{
    RequestText text;
    int error = 0;
    const auto send = [&] {
        error = post(text.of(request_of(op)), text.all(), -1, {nullptr, nullptr, field});
        text.clear();
        return error == 0;
    };
    for (const Text& path : paths)
        if (!text.add(path.get()) && (!send() || !text.add(path.get())))
            return reason_.say_errno(error != 0 ? error : ENAMETOOLONG, "%s", field);
    if (!text.empty())
        send();
    return reason_.say_errno(error, "%s", field);
}

} // namespace zn
