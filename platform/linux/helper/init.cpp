// init.cpp - the processes of an engine's container. The first one is PID 1 of the container: it
// sets up root, mounts and devices as the platform asks, waits for the start, and becomes the
// program. A further one joins the namespaces of the first and becomes its program.
//
// The platform's end of the socket is held by the program that creates the container. If that
// program ends before the container waits for its start, the first process exits.
//
// Until the program is executed, no process in the container can inspect these processes: they are
// not dumpable and have more capabilities than any of them.

#include "helper.hpp"
#include "keeper_mask.hpp"
#include "program.hpp"
#include "request.hpp"
#include "sys.hpp"
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
constexpr unsigned kTerminalMaster = 5; // major number of /dev/ptmx, whose minor number is 2

// What argv and envp say about the program.
struct Program {
    const char* directory;
    int descriptors; // how many it gets besides the standard streams
    bool terminal;
    bool keepKeyring;
    char** argv;
    char** envp;
    char file[kPathMax]; // its path, once it was found
};

void program_read(char** argv, char** envp, Program& program)
{
    program.directory = argv[1];
    program.descriptors = static_cast<int>(number(argv[2]));
    const long flags = number(argv[3]);
    program.terminal = (flags & wire::kInitTerminal) != 0;
    program.keepKeyring = (flags & wire::kInitKeyring) != 0;
    program.argv = argv + wire::kInitFixedArgs;
    program.envp = envp;
    program.file[0] = '\0';
}

int error_of(long result)
{
    return result < 0 ? static_cast<int>(-result) : 0;
}

// ---------------------------------------------------------------- the program

// 0 if the file can be executed.
int executable(const char* path)
{
    struct statx st = {};
    const int error =
        error_of(sys::call(__NR_statx, AT_FDCWD, sys::arg(path), 0, STATX_TYPE, sys::arg(&st)));
    if (error != 0)
        return error;
    if ((st.stx_mode & kTypeMask) == kDirectory)
        return EISDIR;
    return error_of(sys::call(__NR_faccessat, AT_FDCWD, sys::arg(path), 1 /* X_OK */));
}

// As execvp() does: names with "/" are paths, others are looked up in PATH. The error is ENOENT if
// none was found, EACCES if there is one that cannot be executed.
int find_program(Program& program)
{
    constexpr char kPath[] = "PATH=";
    const char* const name = program.argv[0];
    const std::size_t len = strlen(name) + 1;
    for (const char* at = name; *at != '\0'; at++) {
        if (*at != '/')
            continue;
        if (len > sizeof program.file)
            return ENAMETOOLONG;
        memcpy(program.file, name, len);
        return executable(name);
    }
    const char* path = nullptr;
    for (char** at = program.envp; path == nullptr && *at != nullptr; at++)
        if (strlen(*at) >= sizeof kPath - 1 && memcmp(*at, kPath, sizeof kPath - 1) == 0)
            path = *at + sizeof kPath - 1;
    int error = ENOENT;
    while (path != nullptr && len > 1 && *path != '\0') {
        std::size_t part = 0;
        while (path[part] != '\0' && path[part] != ':')
            part++;
        // Entries that are not absolute would depend on the working directory.
        if (path[0] == '/' && part + 1 + len <= sizeof program.file) {
            memcpy(program.file, path, part);
            program.file[part] = '/';
            memcpy(program.file + part + 1, name, len);
            const int tried = executable(program.file);
            if (tried == 0)
                return 0;
            error = tried == EACCES ? EACCES : error;
        }
        path += path[part] == ':' ? part + 1 : part;
    }
    return error;
}

// The user gets the streams, so that the program can open "/dev/stdout". A device that others use,
// too, keeps its owner.
void own_streams(const Identity& user)
{
    constexpr long kPipes = 0x50495045; // PIPEFS_MAGIC
    constexpr long kSockets = 0x534f434b;
    for (int stream = 0; stream <= 2 && user.uid != 0; stream++) {
        struct { // statfs
            long type;
            long rest[31];
        } fs = {};
        struct statx st = {};
        if (sys::call(__NR_fstatfs, stream, sys::arg(&fs)) < 0 ||
            sys::call(__NR_statx, stream, sys::arg(""), AT_EMPTY_PATH, STATX_TYPE, sys::arg(&st)) <
                0)
            continue;
        const bool terminal = (st.stx_mode & kTypeMask) == kCharDevice &&
                              st.stx_rdev_major >= 136 && st.stx_rdev_major <= 143;
        if (terminal || fs.type == kPipes || fs.type == kSockets)
            sys::call(__NR_fchown, stream, user.uid, -1);
    }
}

void report_as(int descriptor, wire::SpawnReport::Kind kind, long result)
{
    const wire::SpawnReport message = {kind, static_cast<std::int32_t>(-result)};
    sys::call(__NR_write, descriptor, sys::arg(&message), sizeof message);
}

// Moves the descriptors that the program gets to the numbers from 3 up. Returns that of the report.
int give_descriptors(int count)
{
    const long report =
        sys::call(__NR_fcntl, wire::kSpawnerReport, F_DUPFD_CLOEXEC, wire::kInitFdEnd + count);
    check(report);
    for (int fd = 3; fd < wire::kInitFdEnd; fd++)
        sys::call(__NR_close, fd);
    for (int i = 0; i < count; i++) {
        sys::call(__NR_dup3, wire::kInitFdEnd + i, 3 + i, 0);
        sys::call(__NR_fcntl, wire::kInitFdEnd + i, F_SETFD, FD_CLOEXEC);
    }
    // Those that were just moved may have taken one of the higher numbers.
    for (int i = 0; i < count; i++)
        sys::call(__NR_fcntl, 3 + i, F_SETFD, 0);
    for (int fd = 3 + count; fd < wire::kInitFdEnd + count; fd++)
        sys::call(__NR_close, fd);
    return static_cast<int>(report);
}

[[noreturn]] void become_program(const Rules& rules, const Program& program)
{
    constexpr long kTakeTerminal = 0x540e; // TIOCSCTTY
    Identity user;
    choose_identity(rules, "", user);
    sys::call(__NR_setsid);
    sys::call(__NR_umask, 0);
    check(-replace_null_streams());
    own_streams(user);
    if (program.terminal)
        check(sys::call(__NR_ioctl, 0, kTakeTerminal, 0));
    sys::call(__NR_umask, rules->umask);
    if (!program.keepKeyring)
        leave_keyring();
    report_as(wire::kSpawnerReport, wire::SpawnReport::Kind::kLimits, 0);
    set_limits(rules);
    report_as(wire::kSpawnerReport, wire::SpawnReport::Kind::kRights, 0);
    // A directory that the user cannot enter may be the working directory, too.
    const long early = directory_enter(program.directory);
    drop_rights(rules, user);
    const long late = directory_enter(program.directory);
    if (late < 0 && early < 0) {
        report_as(wire::kSpawnerReport, wire::SpawnReport::Kind::kDirectory, late);
        sys::exit_group(127);
    }
    const int report = give_descriptors(program.descriptors);
    default_signals();
    const long result = sys::call(__NR_execve, sys::arg(program.file), sys::arg(program.argv),
                                  sys::arg(program.envp));
    report_as(report, wire::SpawnReport::Kind::kProgram, result);
    sys::exit_group(127);
}

// ---------------------------------------------------------------- terminal

sys::Fd open_terminals()
{
    open_how how = {};
    how.flags = O_RDWR | O_NOCTTY | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    sys::Fd master(
        sys::call(__NR_openat2, AT_FDCWD, sys::arg("/dev/pts/ptmx"), sys::arg(&how), sizeof how));
    struct statx st = {};
    const long looked = master.valid() ? sys::call(__NR_statx, master.get(), sys::arg(""),
                                                   AT_EMPTY_PATH, STATX_TYPE, sys::arg(&st))
                                       : 0;
    if (looked < 0)
        return sys::Fd(looked);
    if (master.valid() && ((st.stx_mode & kTypeMask) != kCharDevice ||
                           st.stx_rdev_major != kTerminalMaster || st.stx_rdev_minor != 2))
        return sys::Fd(-ENOTTY);
    return master;
}

int bind_console(int terminal)
{
    const sys::Fd copy(sys::call(__NR_open_tree, terminal, sys::arg(""),
                                 OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH));
    std::uint64_t id = 0;
    return copy.valid() ? mount_attach(copy.get(), "/dev/console", false, &id) : copy.error();
}

// Makes a pseudo-terminal in the container's devpts the standard streams, and sends its other end.
int provide_terminal(int socket, std::uint64_t size, bool console)
{
    constexpr long kUnlock = 0x40045431;    // TIOCSPTLCK
    constexpr long kOpenPeer = 0x5441;      // TIOCGPTPEER
    constexpr long kSetWindowSize = 0x5414; // TIOCSWINSZ
    const sys::Fd master = open_terminals();
    if (!master.valid())
        return master.error();
    const int locked = 0;
    const long unlocked = sys::call(__NR_ioctl, master.get(), kUnlock, sys::arg(&locked));
    if (unlocked < 0)
        return error_of(unlocked);
    const sys::Fd terminal(
        sys::call(__NR_ioctl, master.get(), kOpenPeer, O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!terminal.valid())
        return terminal.error();
    const unsigned short window[4] = {static_cast<unsigned short>(size >> 16),
                                      static_cast<unsigned short>(size & 0xffff), 0, 0};
    if (size != 0)
        sys::call(__NR_ioctl, master.get(), kSetWindowSize, sys::arg(window));
    int error = console ? bind_console(terminal.get()) : 0;
    for (int stream = 0; stream <= 2 && error == 0; stream++)
        error = error_of(sys::call(__NR_dup3, terminal.get(), stream, 0));
    return error != 0 ? error : descriptor_send(socket, "/dev/pts/ptmx", master.get());
}

// ---------------------------------------------------------------- requests

int pivot_root(const Incoming& in, int tree)
{
    const char* host = in.text;
    const char* domain = next_text(host);
    int error = root_pivot(tree);
    if (error == 0 && *host != '\0')
        error =
            error_of(sys::call(__NR_sethostname, sys::arg(host), static_cast<long>(strlen(host))));
    if (error == 0 && *domain != '\0')
        error = error_of(
            sys::call(__NR_setdomainname, sys::arg(domain), static_cast<long>(strlen(domain))));
    // pivot_root refuses a root that is shared; it becomes so afterwards.
    if (error == 0 && in.request.value != 0)
        error = error_of(
            sys::call(__NR_mount, 0, sys::arg("/"), 0, static_cast<long>(in.request.value), 0));
    return error;
}

// A symbolic link at the mount point of a procfs or sysfs could lead to a directory where the
// hidden paths would not be looked for.
int refuse_link(const char* destination)
{
    open_how how = {};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_SYMLINKS;
    const sys::Fd found(
        sys::call(__NR_openat2, AT_FDCWD, sys::arg(destination), sys::arg(&how), sizeof how));
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

// A path cut into the directory, which is created if it is missing, and the name in it.
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

// EBUSY: the configuration has mounted something there, which stays.
int provide_device(const Incoming& in)
{
    const Place place(in.text);
    if (place.error != 0)
        return place.error;
    const int error = node_make(place.directory.get(), place.name, in.request.node);
    return error == EBUSY ? 0 : error;
}

int make_link(const char* path, const char* target)
{
    const Place place(path);
    if (place.error != 0)
        return place.error;
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
        error = path_read_only(path);
    return error;
}

// The answer's value says what the error is about.
int find(Program& program, std::uint64_t* value)
{
    *value = static_cast<std::uint64_t>(wire::SpawnReport::Kind::kDirectory);
    const sys::Fd made(mount_point(program.directory, true));
    const sys::Fd directory(open_inside(program.directory, O_DIRECTORY));
    if (!made.valid() || !directory.valid())
        return made.valid() ? directory.error() : made.error();
    *value = static_cast<std::uint64_t>(wire::SpawnReport::Kind::kProgram);
    return find_program(program);
}

int serve(const Incoming& in, int descriptor, Program& program, std::uint64_t* value)
{
    const char* first = in.text;
    switch (in.request.op) {
    case wire::Op::kJoin:
        return namespace_join(descriptor, in.request.value);
    case wire::Op::kPivot:
        return pivot_root(in, descriptor);
    case wire::Op::kMountTree:
        return mount_attach(descriptor, first, in.request.isDirectory != 0, value);
    case wire::Op::kMountFs:
        return mount_type(in, value);
    case wire::Op::kDevice:
        return provide_device(in);
    case wire::Op::kLink:
        return make_link(first, next_text(first));
    case wire::Op::kSysctl:
        return parameter_set(first, next_text(first));
    case wire::Op::kHide:
        return hide_all(in);
    case wire::Op::kReadOnly:
        return protect_all(in);
    case wire::Op::kTerminal:
        return provide_terminal(descriptor, in.request.value, true);
    case wire::Op::kFind:
        return find(program, value);
    case wire::Op::kWait:
        return 0;
    default:
        return EINVAL;
    }
}

// Serves requests until one asks to wait for the start. The stack keeps the request until then
// only.
void serve_all(Program& program)
{
    Incoming in;
    for (;;) {
        sys::Fd descriptor;
        if (!request_receive(wire::kInitSocket, in, descriptor))
            sys::exit_group(0);
        wire::Answer answer = {};
        answer.error = serve(in, descriptor.get(), program, &answer.value);
        request_answer(wire::kInitSocket, answer);
        if (in.request.op == wire::Op::kWait)
            return;
    }
}

// Who only looks whether the container waits connects and sends nothing.
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

void initialize()
{
    for (int fd = 3; fd < wire::kInitFdEnd; fd++)
        sys::call(__NR_fcntl, fd, F_SETFD, FD_CLOEXEC);
    check(sys::call(__NR_prctl, PR_SET_DUMPABLE, 0));
    sys::call(__NR_umask, 0);
}

} // namespace

void init_run(char** argv, char** envp)
{
    initialize();
    sys::call(__NR_prctl, PR_SET_NAME, sys::arg(wire::kInitName));
    Program program;
    program_read(argv, envp, program);
    const Rules rules;
    prepare_on_host(rules);
    // After entering the control group, which becomes the root of the namespace.
    if (rules->ownControlGroup != 0)
        check(sys::call(__NR_unshare, CLONE_NEWCGROUP));
    if (rules->ownNetwork != 0)
        check(-loopback_up());
    serve_all(program);
    sys::call(__NR_close, wire::kInitSocket);
    wait_for_start();
    become_program(rules, program);
}

void entrant_run(char** argv, char** envp)
{
    initialize();
    Program program;
    program_read(argv, envp, program);
    const Rules rules;
    prepare_on_host(rules);
    check(sys::call(__NR_setns, wire::kInitSocket, static_cast<long>(rules->namespaces)));
    // As in the spawner: the new process is in the PID namespace and a child of the caller.
    const long pid = sys::call(__NR_clone, CLONE_PARENT | CLONE_VFORK, 0, 0, 0, 0);
    if (pid == 0) {
        std::uint64_t what = 0;
        const int missing = find(program, &what);
        if (missing != 0) {
            report_as(wire::kSpawnerReport, static_cast<wire::SpawnReport::Kind>(what), -missing);
            sys::exit_group(127);
        }
        if (program.terminal)
            check(-provide_terminal(wire::kInitStart, 0, false));
        become_program(rules, program);
    }
    check(pid);
    const wire::SpawnReport message = {wire::SpawnReport::Kind::kPid,
                                       static_cast<std::int32_t>(pid)};
    sys::call(__NR_write, wire::kSpawnerReport, sys::arg(&message), sizeof message);
    sys::exit_group(0);
}

} // namespace zn
