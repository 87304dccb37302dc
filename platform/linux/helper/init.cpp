// init.cpp - the processes of an engine's container. The first one is PID 1 of the container: it
// sets up root, mounts and devices as the platform asks, waits for `start` and executes the
// program. A further one joins the namespaces of the first and becomes its program.
//
// The platform's end of the socket is held by the program that creates the container. If that
// program ends before the container waits for its start, the first process exits.
//
// Until the program is executed, processes in the container without CAP_SYS_PTRACE cannot inspect
// these processes: they are not dumpable and have more capabilities than any of them. Their file is
// sealed, and their memory is their own.

#include "group.hpp"
#include "helper.hpp"
#include "init_program.hpp"
#include "keeper_mask.hpp"
#include "program.hpp"
#include "request.hpp"
#include "sys.hpp"
#include "system/open_repeated.hpp"
#include "wire.hpp"

#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/mount.h>
#include <linux/openat2.h>
#include <linux/prctl.h>
#include <linux/sched.h>
#include <linux/stat.h>

namespace zn {
namespace {

constexpr std::size_t kPathMax = 4096;
constexpr long kSignalKill = 9;

int error_of(long result)
{
    return result < 0 ? static_cast<int>(-result) : 0;
}

// ---------------------------------------------------------------- requests

// pivot_root refuses a shared root, so the propagation is set afterwards.
int share_root(std::uint64_t propagation)
{
    return propagation == 0 ? 0
                            : error_of(sys::call(__NR_mount, 0, sys::arg("/"), 0,
                                                 static_cast<long>(propagation), 0));
}

int pivot_root(const Incoming& in, int tree, sys::Fd& hostRoot)
{
    const char* host = in.text;
    const char* domain = next_text(host);
    const char* place = next_text(domain);
    int error = *place != '\0' ? root_place(tree, place, hostRoot) : root_pivot(tree);
    if (error == 0 && *host != '\0')
        error =
            error_of(sys::call(__NR_sethostname, sys::arg(host), static_cast<long>(strlen(host))));
    if (error == 0 && *domain != '\0')
        error = error_of(
            sys::call(__NR_setdomainname, sys::arg(domain), static_cast<long>(strlen(domain))));
    return error == 0 && *place == '\0' ? share_root(in.request.value) : error;
}

int switch_root(const Incoming& in, sys::Fd& hostRoot)
{
    const int error = root_switch(hostRoot);
    return error == 0 ? share_root(in.request.value) : error;
}

// A symbolic link at the mount point of a procfs or sysfs could lead to a directory where the
// hidden paths would not be looked for.
int refuse_link(const char* destination)
{
    open_how how = {};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_SYMLINKS;
    const sys::Fd found(open_repeated([&] {
        return sys::call(__NR_openat2, AT_FDCWD, sys::arg(destination), sys::arg(&how), sizeof how);
    }));
    return found.error() == ENOENT ? 0 : found.error();
}

int mount_type(const Incoming& in, std::uint64_t* id)
{
    const char* destination = in.text;
    const char* type = next_text(destination);
    if (text_equal(type, "proc") || text_equal(type, "sysfs"))
        if (const int error = refuse_link(destination); error != 0)
            return error;
    const sys::Fd mount(
        filesystem_create(type, in.request.attributes, next_text(type), in.request.textCount - 2));
    if (!mount.valid())
        return mount.error();
    mount_attr attr = {};
    attr.propagation = in.request.value;
    const long set = attr.propagation != 0
                         ? sys::call(__NR_mount_setattr, mount.get(), sys::arg(""), AT_EMPTY_PATH,
                                     sys::arg(&attr), sizeof attr)
                         : 0;
    return set < 0 ? error_of(set) : mount_attach(mount.get(), destination, true, id);
}

// Splits a path into its directory, which is created if it is missing, and the last component.
struct Place {
    explicit Place(const char* path)
    {
        std::size_t cut = strlen(path);
        while (cut > 0 && path[cut - 1] != '/')
            cut--;
        char above[kPathMax];
        if (cut == 0 || cut >= sizeof above || path[cut] == '\0') {
            error = EINVAL;
            return;
        }
        memcpy(above, path, cut);
        above[cut] = '\0';
        directory = sys::Fd(mount_point(above, true));
        error = directory.error();
        name = path + cut;
    }

    sys::Fd directory;
    const char* name = nullptr;
    int error = 0;
};

int look_at(int directory, const char* name, struct statx& st)
{
    return error_of(sys::call(__NR_statx, directory, sys::arg(name), AT_SYMLINK_NOFOLLOW,
                              STATX_TYPE | STATX_SIZE, sys::arg(&st)));
}

// Existing files are not replaced, because they may be part of a volume. A mount from the
// configuration at this path, or a node of the same device, is kept.
int node_keep(int directory, const char* name, const wire::Node& node)
{
    struct statx st = {};
    const int error = look_at(directory, name, st);
    if (error != 0 || (st.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0)
        return error;
    const bool isSame = (st.stx_mode & kTypeMask) == (node.mode & kTypeMask) &&
                        st.stx_rdev_major == node.major && st.stx_rdev_minor == node.minor;
    return isSame ? 0 : EEXIST;
}

// Refuses a symbolic link at /dev: devices must not be created where it leads.
int refuse_device_link(const char* path)
{
    constexpr char kDev[] = "/dev/";
    return strlen(path) >= sizeof kDev && memcmp(path, kDev, sizeof kDev - 1) == 0
               ? refuse_link("/dev")
               : 0;
}

// Attaches a bind of the host's node. An empty file may be the mount point that an earlier
// container made in the same root.
int attach_device(const Place& place, int mount, const Incoming& in)
{
    struct statx st = {};
    const int error = look_at(place.directory.get(), place.name, st);
    if (error == 0 && ((st.stx_mode & kTypeMask) != kRegular ||
                       (st.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 || st.stx_size != 0))
        return node_keep(place.directory.get(), place.name, in.request.node);
    std::uint64_t id = 0;
    return error == 0 || error == ENOENT ? mount_attach(mount, in.text, false, &id) : error;
}

int provide_device(const Incoming& in, int mount)
{
    const int refused = refuse_device_link(in.text);
    const Place place(in.text);
    if (refused != 0 || place.error != 0)
        return refused != 0 ? refused : place.error;
    if (mount >= 0)
        return attach_device(place, mount, in);
    const int error = node_create(place.directory.get(), place.name, in.request.node);
    return error == EEXIST ? node_keep(place.directory.get(), place.name, in.request.node) : error;
}

int make_link(const char* path, const char* target)
{
    const int refused = refuse_device_link(path);
    const Place place(path);
    if (refused != 0 || place.error != 0)
        return refused != 0 ? refused : place.error;
    const int error = error_of(
        sys::call(__NR_symlinkat, sys::arg(target), place.directory.get(), sys::arg(place.name)));
    return error == EEXIST ? 0 : error;
}

// The covers of hidden paths are attached and detached once for all of them: detaching waits for
// all processors.
int hide_all(const Incoming& in)
{
    const sys::Fd root(open_inside("/", O_DIRECTORY));
    if (!root.valid())
        return root.error();
    Covers covers(root.get());
    int error = 0;
    const char* path = in.text;
    for (unsigned i = 0; i < in.request.textCount && error == 0; i++, path = next_text(path)) {
        const sys::Fd target(open_inside(path, 0));
        if (target.valid())
            error = covers.cover(target.get());
        else if (target.error() != ENOENT && target.error() != ENOTDIR)
            error = target.error();
    }
    const int detached = covers.detach();
    return error != 0 ? error : detached;
}

int protect_all(const Incoming& in)
{
    int error = 0;
    const char* path = in.text;
    for (unsigned i = 0; i < in.request.textCount && error == 0; i++, path = next_text(path))
        error = (in.request.value & wire::kReadOnlyMount) != 0 ? mount_read_only(path)
                                                               : path_read_only(path);
    return error;
}

// The copy belongs to the user namespace of this process. The mounts of the original, which were
// made with the rights of the host, cannot be unmounted or changed in the copy: the kernel locks
// mounts that are copied to another user namespace, and their flags.
int own_mounts(const Incoming& in)
{
    int error = error_of(sys::call(__NR_unshare, CLONE_NEWNS));
    if (error == 0)
        error = error_of(sys::call(__NR_chdir, sys::arg("/")));
    struct statx st = {};
    if (error == 0)
        error =
            error_of(sys::call(__NR_statx, AT_FDCWD, sys::arg("/"), 0, STATX_INO, sys::arg(&st)));
    // This process must have got the new root when another one changed the root.
    const std::uint64_t device = std::uint64_t{st.stx_dev_major} << 32 | st.stx_dev_minor;
    if (error == 0 && (st.stx_ino != in.request.value || device != in.request.attributes))
        error = EXDEV;
    return error;
}

int serve(const Incoming& in, int descriptor, Program& program, sys::Fd& hostRoot,
          std::uint64_t* value)
{
    const char* first = in.text;
    switch (in.request.op) {
    case wire::Op::kPivot:
        return pivot_root(in, descriptor, hostRoot);
    case wire::Op::kSwitch:
        return switch_root(in, hostRoot);
    case wire::Op::kMountTree:
        return mount_attach(descriptor, first, in.request.isDirectory != 0, value);
    case wire::Op::kMountFs:
        return mount_type(in, value);
    case wire::Op::kDevice:
        return provide_device(in, descriptor);
    case wire::Op::kLink:
        return make_link(first, next_text(first));
    case wire::Op::kSysctl:
        return parameter_set(first, next_text(first));
    case wire::Op::kHide:
        return hide_all(in);
    case wire::Op::kReadOnly:
        return protect_all(in);
    case wire::Op::kOwner:
        return owner_set(in.request.node.uid, in.request.node.gid);
    case wire::Op::kOwnMounts:
        return own_mounts(in);
    case wire::Op::kTerminal:
        return terminal_provide(descriptor, in.request.value, true);
    case wire::Op::kFind:
        return program_find(program, value);
    case wire::Op::kWait:
        return 0;
    default:
        return EINVAL;
    }
}

// Serves requests until one asks to wait for the start. A separate function, so that the large
// request does not stay on the stack.
void serve_all(Program& program)
{
    Incoming in;
    sys::Fd hostRoot;
    wire::Answer failed = {}; // that of the first posted request that failed
    for (;;) {
        sys::Fd descriptor;
        if (!request_receive(wire::kInitSocket, in, descriptor))
            sys::exit_group(0);
        wire::Answer answer = {};
        const bool posted = in.request.posted != 0;
        if (posted && failed.error != 0)
            continue;
        if (in.request.op == wire::Op::kSettle)
            answer = {failed.error, 0, failed.serial};
        else
            answer.error = serve(in, descriptor.get(), program, hostRoot, &answer.value);
        if (posted) {
            failed = {answer.error, in.request.serial, 0};
            continue;
        }
        request_answer(wire::kInitSocket, in.request, answer);
        if (in.request.op == wire::Op::kWait)
            return;
    }
}

// A client that only checks whether the container waits connects and sends nothing.
void wait_for_start()
{
    for (;;) {
        const sys::Fd client(
            sys::call(__NR_accept4, wire::kInitStart, 0, 0, 02000000 /* SOCK_CLOEXEC */));
        if (client.error() == EINTR)
            continue;
        if (!client.valid())
            fail(-client.error());
        char byte = 0;
        if (sys::call(__NR_read, client.get(), sys::arg(&byte), sizeof byte) != sizeof byte)
            continue;
        check(sys::call(__NR_dup3, client.get(), wire::kSpawnerReport, O_CLOEXEC));
        sys::call(__NR_close, wire::kInitStart);
        return;
    }
}

// The label takes effect with the next execve(), by this process or a child of it, which is that of
// the container's program. By then the host's procfs is no longer accessible, so the label is
// written here.
void choose_labels_on_host(const Rules& rules)
{
    if (rules->labels == 0)
        return;
    const sys::Fd proc(
        sys::call(__NR_openat, AT_FDCWD, sys::arg("/proc"), O_PATH | O_DIRECTORY | O_CLOEXEC));
    choose_labels(rules, proc.get());
}

void initialize()
{
    for (int fd = 3; fd < wire::kInitFdEnd; fd++)
        sys::call(__NR_fcntl, fd, F_SETFD, FD_CLOEXEC);
    check(sys::call(__NR_prctl, PR_SET_DUMPABLE, 0));
    sys::call(__NR_umask, 0);
}

} // namespace

namespace {

// Puts this process, and the one that it creates, into a process group of their own, so that the
// caller finds the created one even if this process is killed before it reports it.
void begin_group()
{
    check(sys::call(__NR_setpgid, 0, 0));
}

void report_process(long pid)
{
    const wire::SpawnReport message = {wire::SpawnReport::Kind::kPid,
                                       static_cast<std::int32_t>(pid)};
    sys::call(__NR_write, wire::kSpawnerReport, sys::arg(&message), sizeof message);
}

// The text for timens_offsets, the last text of the record.
const char* offsets_of(const Rules& rules)
{
    const char* text = rules.entries();
    for (unsigned i = 0; i < rules->entries + 2 * rules->labels; i++)
        text = next_text(text);
    return text;
}

// Creates a time namespace for the children of this process. `file` was opened before the user
// namespace was entered, because inside it this process could not open it for writing.
void make_time_namespace(const Rules& rules, int file)
{
    check(sys::call(__NR_unshare, CLONE_NEWTIME));
    const char* offsets = offsets_of(rules);
    if (rules->offsets != 0)
        check(sys::call(__NR_write, file, sys::arg(offsets), static_cast<long>(strlen(offsets))));
}

// Creates the process that becomes the program, in its control groups. Like this process it is a
// child of the caller; it is in the user namespace, if the container has one, and in new namespaces
// owned by that. Returns only in the new process.
void create_in_namespaces(const Rules& rules)
{
    const std::uint64_t flags = rules->created;
    // In a user namespace this process may not put another one into the group of a host's user.
    if (rules->user != 0)
        enter_groups(rules);
    const ProgramGroups groups = rules->user != 0 ? ProgramGroups() : ProgramGroups(rules);
    const sys::Fd offsets(rules->offsets == 0 ? -EBADF
                                              : sys::call(__NR_openat, AT_FDCWD,
                                                          sys::arg("/proc/self/timens_offsets"),
                                                          O_WRONLY | O_CLOEXEC));
    if ((rules->namespaces & CLONE_NEWPID) != 0)
        check(sys::call(__NR_setns, wire::kInitPid, CLONE_NEWPID));
    if (rules->user != 0) {
        // The root is changed later, which affects only processes that have the root of the mount
        // namespace.
        check(-chroot_leave());
        user_enter(rules, wire::kInitUser);
    }
    if ((flags & CLONE_NEWTIME) != 0)
        make_time_namespace(rules, offsets.get());
    begin_group();
    const long pid = groups.create_process((flags & ~std::uint64_t{CLONE_NEWTIME}) | CLONE_PARENT);
    if (pid == 0)
        return;
    check(pid);
    report_process(pid);
    sys::exit_group(0);
}

// Nothing may be created before: the group of this process becomes the root of the cgroup namespace
// and that of its children.
void wait_for_group()
{
    char byte = 0;
    if (sys::call(__NR_read, wire::kInitSocket, sys::arg(&byte), sizeof byte) != sizeof byte)
        sys::exit_group(0); // the creator has ended
}

void begin(const char* name, char** argv, char** envp, Program& program)
{
    initialize();
    sys::call(__NR_prctl, PR_SET_NAME, sys::arg(name));
    program_read(argv, envp, program);
}

} // namespace

void init_run(char** argv, char** envp)
{
    Program program;
    begin(wire::kInitName, argv, envp, program);
    const Rules rules;
    if (rules->placed != 0)
        wait_for_group();
    set_out_of_memory_score(rules);
    choose_labels_on_host(rules);
    if (rules->created != 0)
        create_in_namespaces(rules);
    else
        enter_groups(rules);
    // In the control group, which becomes the root of the cgroup namespace.
    if (rules->ownControlGroup != 0)
        check(sys::call(__NR_unshare, CLONE_NEWCGROUP));
    sys::call(__NR_close, wire::kInitUser);
    sys::call(__NR_close, wire::kInitPid);
    if (rules->ownNetwork != 0)
        check(-loopback_up());
    serve_all(program);
    sys::call(__NR_close, wire::kInitSocket);
    wait_for_start();
    program_become(rules, program);
}

void maker_run(char** argv, char** envp)
{
    Program program;
    begin(wire::kMakerName, argv, envp, program);
    const Rules rules;
    check(sys::call(__NR_setns, wire::kInitUser, static_cast<long>(rules->namespaces)));
    begin_group();
    // Serve in a child, which is in the PID namespace: a procfs shows the PID namespace of the
    // process that mounts it.
    const long pid = sys::call(__NR_clone, CLONE_PARENT, 0, 0, 0, 0);
    if (pid == 0) {
        serve_all(program);
        sys::exit_group(0);
    }
    check(pid);
    report_process(pid);
    sys::exit_group(0);
}

void entrant_run(char** argv, char** envp)
{
    initialize();
    check(sys::call(__NR_prctl, PR_SET_PDEATHSIG, kSignalKill));
    Program program;
    program_read(argv, envp, program);
    const Rules rules;
    const ProgramGroups groups(rules);
    set_out_of_memory_score(rules);
    choose_labels_on_host(rules);
    ProgramGroups::join_namespaces(rules, wire::kInitUser);
    // As in the spawner: the new process is in the PID namespace and a child of the caller. It must
    // be reported before it can report a listener.
    const unsigned long wait = filter_listens(rules) ? 0 : CLONE_VFORK;
    const long pid = groups.create_process(CLONE_PARENT | wait);
    if (pid == 0) {
        ProgramGroups::join_last(rules, wire::kInitUser);
        if (program.unconfined)
            program_become_unconfined(program);
        if (rules->user != 0) {
            program_report(wire::kSpawnerReport, wire::SpawnReport::Kind::kLimits, 0);
            set_limits(rules);
            user_enter(rules, wire::kInitUser);
        }
        std::uint64_t what = 0;
        const int missing = program_find(program, &what);
        if (missing != 0) {
            program_report(wire::kSpawnerReport, static_cast<wire::SpawnReport::Kind>(what),
                           -missing);
            sys::exit_group(127);
        }
        if (program.terminal)
            check(-terminal_provide(wire::kInitStart, program.terminalSize, false));
        program_become(rules, program);
    }
    check(pid);
    report_process(pid);
    sys::exit_group(0);
}

} // namespace zn
