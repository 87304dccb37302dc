// init_program.cpp - see init_program.hpp.
#include "init_program.hpp"

#include "helper.hpp"
#include "request.hpp"
#include "sys.hpp"

#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/mount.h>
#include <linux/openat2.h>
#include <linux/prctl.h>
#include <linux/sched.h>
#include <linux/stat.h>

namespace zn {
namespace {

constexpr unsigned kTerminalMaster = 5; // major number of /dev/ptmx, whose minor number is 2

int error_of(long result)
{
    return result < 0 ? static_cast<int>(-result) : 0;
}

} // namespace

void program_read(char** argv, char** envp, Program& program)
{
    program.directory = argv[1];
    program.descriptors = static_cast<int>(number(argv[2]));
    const long flags = number(argv[3]);
    program.terminal = (flags & wire::kInitTerminal) != 0;
    program.keepKeyring = (flags & wire::kInitKeyring) != 0;
    program.unconfined = (flags & wire::kInitUnconfined) != 0;
    program.path = argv[4];
    program.terminalSize = static_cast<std::uint64_t>(number(argv[5]));
    program.argv = argv + wire::kInitFixedArgs;
    program.envp = envp;
    program.file[0] = '\0';
}

// ---------------------------------------------------------------- the program

namespace {

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
    const char* const name = program.path[0] != '\0' ? program.path : program.argv[0];
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

// The user gets the streams, so that the program can open "/dev/stdout". A device, which other
// processes use, too, keeps its owner.
void chown_streams(long uid)
{
    constexpr long kPipes = 0x50495045; // PIPEFS_MAGIC
    constexpr long kSockets = 0x534f434b;
    for (int stream = 0; stream <= 2 && uid > 0; stream++) {
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
            sys::call(__NR_fchown, stream, uid, -1);
    }
}

} // namespace

void program_report(int descriptor, wire::SpawnReport::Kind kind, long result)
{
    const wire::SpawnReport message = {kind, static_cast<std::int32_t>(-result)};
    sys::call(__NR_write, descriptor, sys::arg(&message), sizeof message);
}

namespace {

// Moves the descriptors that the program gets to the numbers from 3 up. Returns that of the report.
int give_descriptors(int count)
{
    const long report =
        sys::call(__NR_fcntl, wire::kSpawnerReport, F_DUPFD_CLOEXEC, wire::kInitFdEnd + count);
    check(report);
    for (int fd = 3; fd < wire::kInitFdEnd; fd++)
        sys::call(__NR_close, fd);
    for (int i = 0; i < count; i++) {
        // If the caller does not have the descriptor, close the number, which may be in use.
        if (sys::call(__NR_dup3, wire::kInitFdEnd + i, 3 + i, 0) < 0)
            sys::call(__NR_close, 3 + i);
        sys::call(__NR_fcntl, wire::kInitFdEnd + i, F_SETFD, FD_CLOEXEC);
    }
    // A number that a descriptor was moved to may be one of the old numbers, which were made
    // close-on-exec above: clear the flag.
    for (int i = 0; i < count; i++)
        sys::call(__NR_fcntl, 3 + i, F_SETFD, 0);
    for (int fd = 3 + count; fd < wire::kInitFdEnd + count; fd++)
        sys::call(__NR_close, fd);
    return static_cast<int>(report);
}

} // namespace

void program_become(const Rules& rules, const Program& program)
{
    constexpr long kTakeTerminal = 0x540e; // TIOCSCTTY
    Identity user;
    choose_identity(rules, "", user);
    sys::call(__NR_setsid);
    sys::call(__NR_umask, 0);
    check(-replace_null_streams());
    chown_streams(user.uid);
    if (program.terminal)
        check(sys::call(__NR_ioctl, 0, kTakeTerminal, 0));
    sys::call(__NR_umask, rules->umask);
    if (!program.keepKeyring)
        join_new_session_keyring();
    // In a user namespace hard limits cannot be raised: they were set before it was entered.
    if (rules->user == 0) {
        program_report(wire::kSpawnerReport, wire::SpawnReport::Kind::kLimits, 0);
        set_limits(rules);
    }
    program_report(wire::kSpawnerReport, wire::SpawnReport::Kind::kRights, 0);
    // A directory that the user cannot enter may be the working directory, too. The path is about
    // the root both times, not about the directory that was entered first.
    const sys::Fd root(open_inside("/", O_DIRECTORY));
    const long early = directory_enter(root.get(), program.directory);
    drop_rights(rules, user);
    const long late = directory_enter(root.get(), program.directory);
    if (late < 0 && early < 0) {
        program_report(wire::kSpawnerReport, wire::SpawnReport::Kind::kDirectory, late);
        sys::exit_group(127);
    }
    const int report = give_descriptors(program.descriptors);
    default_signals();
    program_report(report, wire::SpawnReport::Kind::kProgram, 0);
    const long result = sys::call(__NR_execve, sys::arg(program.file), sys::arg(program.argv),
                                  sys::arg(program.envp));
    program_report(report, wire::SpawnReport::Kind::kProgram, result);
    sys::exit_group(127);
}

void user_enter(const Rules& rules, int descriptor)
{
    if (rules->ranges != 0)
        chown_streams(host_user(rules, rules->uid));
    check(sys::call(__NR_setns, descriptor, CLONE_NEWUSER));
    // Refused in the namespace of an ordinary user, which has no supplementary groups to lose.
    sys::call(__NR_setgroups, 0, 0);
    check(sys::call(__NR_setresgid, 0, 0, 0));
    check(sys::call(__NR_setresuid, 0, 0, 0));
    // Changing ids has reset this.
    check(sys::call(__NR_prctl, PR_SET_DUMPABLE, 0));
}

void program_become_unconfined(const Program& program)
{
    constexpr long kUmask = 022;
    sys::call(__NR_umask, kUmask);
    check(sys::call(__NR_setpgid, 0, 0));
    const sys::Fd root(open_inside("/", O_DIRECTORY));
    if (const long entered = directory_enter(root.get(), program.directory); entered < 0) {
        program_report(wire::kSpawnerReport, wire::SpawnReport::Kind::kDirectory, entered);
        sys::exit_group(127);
    }
    const int report = give_descriptors(program.descriptors);
    default_signals();
    program_report(report, wire::SpawnReport::Kind::kProgram, 0);
    const long result = sys::call(__NR_execve, sys::arg(program.path), sys::arg(program.argv),
                                  sys::arg(program.envp));
    program_report(report, wire::SpawnReport::Kind::kProgram, result);
    sys::exit_group(127);
}

int program_find(Program& program, std::uint64_t* what)
{
    *what = static_cast<std::uint64_t>(wire::SpawnReport::Kind::kDirectory);
    const sys::Fd made(mount_point(program.directory, true));
    const sys::Fd directory(open_inside(program.directory, O_DIRECTORY));
    if (!made.valid() || !directory.valid())
        return made.valid() ? directory.error() : made.error();
    *what = static_cast<std::uint64_t>(wire::SpawnReport::Kind::kProgram);
    // A name such as "./program" is about the working directory.
    const long entered = sys::call(__NR_fchdir, directory.get());
    const int error = entered < 0 ? static_cast<int>(-entered) : find_program(program);
    check(sys::call(__NR_chdir, sys::arg("/")));
    return error;
}

// ---------------------------------------------------------------- terminal

namespace {

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

} // namespace

int terminal_provide(int socket, std::uint64_t size, bool console)
{
    constexpr long kUnlock = 0x40045431;    // TIOCSPTLCK
    constexpr long kOpenPeer = 0x5441;      // TIOCGPTPEER
    constexpr long kSetWindowSize = 0x5414; // TIOCSWINSZ
    constexpr char kName[] = "/dev/pts/ptmx";
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
    return error != 0 ? error : descriptor_send(socket, kName, sizeof kName - 1, master.get());
}

} // namespace zn
