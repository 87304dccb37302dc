// engine_rootless.cpp - what a container gets from the host if its creator has only the rights of
// root in a user namespace: the host's file systems and device nodes in place of new ones.
#include "engine_creation.hpp"

#include "mount_plan.hpp"
#include "ns_user.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace zn {

using znc::UniqueFd;

// A sysfs shows a network namespace, a procfs a PID namespace, and either needs the rights of that
// namespace's owner. For those of the host, the host's mounts are shown: sysfs read-only.
int Creation::bind_of_host(const ZN_ENGINE_MOUNT& mount, const EngineMount& wanted)
{
    const bool isSys = std::strcmp(mount.type, "sysfs") == 0;
    if (!isSys && (std::strcmp(mount.type, "proc") != 0 ||
                   settings_.from(NsKind::kPid) != NsChoice::From::kHost))
        return EPERM;
    EngineMount bound;
    bound.plan.bind = true;
    bound.plan.recursive = true;
    bound.plan.propagation = wanted.plan.propagation;
    bound.whole.attrSet = wanted.plan.attrSet | wanted.whole.attrSet | MOUNT_ATTR_NOSUID |
                          MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC | (isSys ? MOUNT_ATTR_RDONLY : 0);
    const UniqueFd made = engine_mount_make(bound, isSys ? "/sys" : "/proc", -1, nullptr);
    return made ? attach(made.get(), mount.destination, mount) : errno;
}

// Engines ask for the group of terminals (5) whether it is mapped or not. Terminals then belong to
// the group of the process that opens them.
int Creation::drop_unmapped_group(EngineMount& wanted) const
{
    if (wanted.plan.bind || std::strcmp(wanted.plan.type, "devpts") != 0)
        return 0;
    List<IdMapping> groups;
    if (const int error = mappings_read(::getpid(), "gid_map", groups); error != 0)
        return error;
    const MountPlan before = wanted.plan;
    wanted.plan.optionsLen = 0;
    wanted.plan.optionCount = 0;
    const char* option = before.options;
    for (unsigned i = 0; i < before.optionCount; i++, option += std::strlen(option) + 1) {
        std::uint32_t id = 0;
        char rest = '\0'; // after the number; the kernel refuses it
        if (std::sscanf(option, "gid=%u%c", &id, &rest) == 1 &&
            (user_ ? !user_.host_gid(id) : !mapped_id(groups, id)))
            continue;
        if (!mount_plan_keep(option, wanted.plan))
            return ENAMETOOLONG;
    }
    return 0;
}

namespace {

bool is_node(int file, const wire::Node& node)
{
    struct stat st = {};
    return file >= 0 && ::fstat(file, &st) == 0 && (st.st_mode & S_IFMT) == (node.mode & S_IFMT) &&
           st.st_rdev == makedev(node.major, node.minor);
}

} // namespace

// In a user namespace no device can be created, but one of the host can be shown: the one with the
// same path, or else the one with the same number.
int Creation::bind_device(const char* path, const wire::Node& node)
{
    char numbered[64];
    std::snprintf(numbered, sizeof numbered, "/dev/%s/%u:%u", S_ISBLK(node.mode) ? "block" : "char",
                  node.major, node.minor);
    UniqueFd file(::open(path, O_PATH | O_CLOEXEC));
    if (!is_node(file.get(), node))
        file.reset(::open(numbered, O_PATH | O_CLOEXEC));
    if (!is_node(file.get(), node))
        return ENODEV;
    const UniqueFd mount(static_cast<int>(::syscall(
        SYS_open_tree, file.get(), "", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH)));
    if (!mount)
        return errno;
    wire::Request request = request_of(wire::Op::kDevice);
    request.node = node;
    return ask(request, {path}, mount.get());
}

} // namespace zn
