// spawner.cpp - starts a program in a namespace: joins the namespace, creates the program's process
// there as a child of the caller, confines it and executes the program.
//
// Between joining and executing the program, no process in the container can inspect these
// processes: they are not dumpable and have more capabilities than any container process.

#include "group.hpp"
#include "helper.hpp"
#include "program.hpp"
#include "request.hpp"
#include "sys.hpp"
#include "wire.hpp"

#include <asm/signal.h>
#include <linux/capability.h>
#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/keyctl.h>
#include <linux/mqueue.h>
#include <linux/prctl.h>
#include <linux/resource.h>
#include <linux/sched.h>
#include <linux/seccomp.h>
#include <linux/stat.h>

namespace zn {
namespace {

constexpr std::uint64_t bit(int capability)
{
    return std::uint64_t{1} << capability;
}

void report(wire::SpawnReport::Kind kind, long value)
{
    const wire::SpawnReport message = {kind, static_cast<std::int32_t>(value)};
    sys::call(__NR_write, wire::kSpawnerReport, sys::arg(&message), sizeof message);
}

} // namespace

void fail(long result)
{
    report(wire::SpawnReport::Kind::kError, -result);
    sys::exit_group(127);
}

void check(long result)
{
    if (result < 0)
        fail(result);
}

long number(const char* text)
{
    const bool negative = *text == '-';
    long value = 0;
    for (text += negative ? 1 : 0; *text >= '0' && *text <= '9'; text++)
        value = value * 10 + (*text - '0');
    return negative ? -value : value;
}

// execve resets signal handlers but keeps ignored signals and the signal mask.
void default_signals()
{
    struct {
        void* handler;
        unsigned long flags;
        void* restorer;
        unsigned long mask;
    } action = {};
    for (int signal = 1; signal <= 64; signal++)
        sys::call(__NR_rt_sigaction, signal, sys::arg(&action), 0, sizeof action.mask);
    const unsigned long none = 0;
    sys::call(__NR_rt_sigprocmask, 2 /* SIG_SETMASK */, sys::arg(&none), 0, sizeof none);
}

namespace {

struct Limit {
    std::uint64_t soft;
    std::uint64_t hard;
};

} // namespace

Rules::Rules()
{
    struct statx st = {};
    check(sys::call(__NR_statx, wire::kSpawnerRecord, sys::arg(""), AT_EMPTY_PATH, STATX_SIZE,
                    sys::arg(&st)));
    if (st.stx_size < wire::kConfinementOffset + sizeof *rules_)
        fail(-EINVAL);
    const long at = sys::map_file(st.stx_size, wire::kSpawnerRecord);
    check(at < 0 && at > -4096 ? at : 0);
    const char* start = reinterpret_cast<const char*>(at) + wire::kConfinementOffset;
    rules_ = reinterpret_cast<const wire::Confinement*>(start);
    limits_ = reinterpret_cast<const wire::Limit*>(rules_ + 1);
    ranges_ = reinterpret_cast<const wire::IdRange*>(limits_ + rules_->limits);
    filter_ = reinterpret_cast<const wire::FilterCode*>(ranges_ + rules_->ranges);
    groups_ = reinterpret_cast<const std::uint32_t*>(filter_ + rules_->filter);
    entries_ = reinterpret_cast<const char*>(groups_ + rules_->groups);
    if (rules_->size > st.stx_size - wire::kConfinementOffset || entries_ > start + rules_->size)
        fail(-EINVAL);
}

void choose_identity(const Rules& rules, const char* text, Identity& user)
{
    user.uid = rules->uid;
    user.gid = rules->gid;
    user.groups = rules.groups();
    user.groupCount = rules->groups;
    user.permitted = rules->permitted;
    user.effective = rules->effective;
    user.inheritable = rules->inheritable;
    user.ambient = rules->ambient;
    if (*text == '\0')
        return;
    unsigned count = 0;
    for (const char* at = text; *at != '\0' && count < kGroupsMax; at++)
        if (at == text || at[-1] == ':')
            user.given[count++] = static_cast<std::uint32_t>(number(at));
    if (count < 2)
        fail(-EINVAL);
    user.uid = user.given[0];
    user.gid = user.given[1];
    user.groups = user.given + 2;
    user.groupCount = count - 2;
    user.permitted = user.uid == 0 ? rules->bounding : 0;
    user.effective = user.permitted;
    user.inheritable = 0;
    user.ambient = 0;
}

namespace {

// Raises the soft stack limit to `wanted`, at most to the hard limit; never lowers it.
void raise_stack(long wanted)
{
    Limit limit = {};
    if (sys::call(__NR_prlimit64, 0, RLIMIT_STACK, 0, sys::arg(&limit)) < 0)
        return;
    auto size = static_cast<std::uint64_t>(wanted);
    if (size <= limit.soft)
        return;
    if (size > limit.hard)
        size = limit.hard;
    limit.soft = size;
    sys::call(__NR_prlimit64, 0, RLIMIT_STACK, sys::arg(&limit), 0);
}

// Queue memory is counted per user, and root in a container is root on the host. Halving the limit
// leaves the other half to the daemon's clients.
void halve_queue_memory_limit()
{
    Limit limit = {};
    check(sys::call(__NR_prlimit64, 0, RLIMIT_MSGQUEUE, 0, sys::arg(&limit)));
    if (limit.soft > MQ_BYTES_MAX)
        limit.soft = MQ_BYTES_MAX;
    limit.soft /= 2;
    limit.hard = limit.soft;
    check(sys::call(__NR_prlimit64, 0, RLIMIT_MSGQUEUE, sys::arg(&limit), 0));
}

} // namespace

// Gives the program a session keyring of its own. ENOSYS: the kernel has no keyrings. EPERM: a
// seccomp filter forbids the call, to the program as well.
void join_new_session_keyring()
{
    const long joined = sys::call(__NR_keyctl, KEYCTL_JOIN_SESSION_KEYRING, 0);
    if (joined < 0 && joined != -ENOSYS && joined != -EPERM)
        fail(joined);
}

// Magic links are refused and the result is checked: a working directory outside the root would be
// an escape.
long directory_enter(int root, const char* path)
{
    const sys::Fd directory(open_inside_at(root, path, O_DIRECTORY));
    if (!directory.valid())
        return -directory.error();
    char where[4096];
    where[0] = '\0';
    long entered = sys::call(__NR_fchdir, directory.get());
    if (entered >= 0)
        entered = sys::call(__NR_getcwd, sys::arg(where), sizeof where);
    if (entered < 0)
        return entered;
    return where[0] == '/' ? 0 : -ENOENT;
}

void set_limits(const Rules& rules)
{
    for (unsigned i = 0; i < rules->limits; i++) {
        const wire::Limit& wanted = rules.limits()[i];
        const Limit limit = {wanted.soft, wanted.hard};
        check(
            sys::call(__NR_prlimit64, 0, static_cast<long>(wanted.resource), sys::arg(&limit), 0));
    }
}

namespace {

// While a listener exists, calls wait for its answer. If this process kept it, they would wait even
// if the program that answers had ended.
void hand_over(long listener)
{
    report(wire::SpawnReport::Kind::kListener, listener);
    char byte = 0;
    const long got = sys::call(__NR_read, wire::kSpawnerReport, sys::arg(&byte), sizeof byte);
    check(got < 0 ? got : 0);
    if (got == 0)
        sys::exit_group(127);
    check(sys::call(__NR_close, listener));
}

void install_filter(const Rules& rules)
{
    if (rules->filter == 0)
        return;
    struct {
        unsigned short length;
        const wire::FilterCode* code;
    } const program = {static_cast<unsigned short>(rules->filter), rules.filter()};
    const long result =
        sys::call(__NR_seccomp, SECCOMP_SET_MODE_FILTER, rules->filterFlags, sys::arg(&program));
    check(result);
    if (filter_listens(rules))
        hand_over(result);
}

void limit_capabilities(std::uint64_t bounding)
{
    for (int capability = 0; capability < 64; capability++) {
        if ((bounding & bit(capability)) != 0)
            continue;
        const long dropped = sys::call(__NR_prctl, PR_CAPBSET_DROP, capability);
        if (dropped == -EINVAL) // the kernel has no more capabilities
            break;
        check(dropped);
    }
    sys::call(__NR_prctl, PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL);
}

void set_capabilities(const Identity& user)
{
    const auto low = [](std::uint64_t set) { return static_cast<std::uint32_t>(set); };
    const auto high = [](std::uint64_t set) { return static_cast<std::uint32_t>(set >> 32); };
    const __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct sets[2] = {
        {low(user.effective), low(user.permitted), low(user.inheritable)},
        {high(user.effective), high(user.permitted), high(user.inheritable)}};
    check(sys::call(__NR_capset, sys::arg(&header), sys::arg(sets)));
    for (int capability = 0; capability < 64; capability++)
        if ((user.ambient & bit(capability)) != 0)
            check(sys::call(__NR_prctl, PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, capability));
}

} // namespace

bool filter_listens(const Rules& rules)
{
    return rules->filter != 0 && (rules->filterFlags & SECCOMP_FILTER_FLAG_NEW_LISTENER) != 0;
}

void drop_rights(const Rules& rules, const Identity& user)
{
    // Without no_new_privs, installing a filter needs a capability that is dropped below.
    if (rules->noNewPrivileges == 0)
        install_filter(rules);
    // Secure bits set by the caller could keep capabilities from being dropped with root's user id.
    check(sys::call(__NR_prctl, PR_SET_SECUREBITS, 0));
    limit_capabilities(rules->bounding);
    if (rules->keepGroups == 0)
        check(sys::call(__NR_setgroups, static_cast<long>(user.groupCount), sys::arg(user.groups)));
    check(sys::call(__NR_setresgid, user.gid, user.gid, user.gid));
    check(sys::call(__NR_prctl, PR_SET_KEEPCAPS, 1));
    check(sys::call(__NR_setresuid, user.uid, user.uid, user.uid));
    check(sys::call(__NR_prctl, PR_SET_KEEPCAPS, 0));
    // Changing user ids may have reset the dumpable flag; from here on this process has no more
    // capabilities than processes in the container.
    check(sys::call(__NR_prctl, PR_SET_DUMPABLE, 0));
    set_capabilities(user);
    if (rules->noNewPrivileges == 0)
        return;
    check(sys::call(__NR_prctl, PR_SET_NO_NEW_PRIVS, 1));
    install_filter(rules);
}

// The host's id of a user of the container; -1 if it has none.
long host_user(const Rules& rules, std::uint32_t uid)
{
    if (rules->ranges == 0)
        return uid;
    for (unsigned i = 0; i < rules->ranges; i++) {
        const wire::IdRange& range = rules.ranges()[i];
        if (uid >= range.inside && uid - range.inside < range.count)
            return range.outside + (uid - range.inside);
    }
    return -1;
}

namespace {

// If standard input is a terminal that belongs to no session (a pseudo-terminal created for the
// program), it becomes the controlling terminal. The caller's own terminal belongs to the caller's
// session and does not. The user gets what was made for the program, so that it can open
// "/dev/stdout".
void chown_streams(const Rules& rules, const Identity& user)
{
    constexpr long kTakeTerminal = 0x540e; // TIOCSCTTY
    constexpr long kPipes = 0x50495045;    // PIPEFS_MAGIC
    const bool terminal = sys::call(__NR_ioctl, 0, kTakeTerminal, 0) == 0;
    const long owner = host_user(rules, user.uid);
    if (owner <= 0)
        return;
    for (int stream = 0; stream <= 2; stream++)
        if ((terminal && stream == 0) || sys::file_system_type(stream) == kPipes)
            sys::call(__NR_fchown, stream, owner, -1);
}

// Executes the program; if it does not exist and its name has no "/", looks for it in the PATH of
// its environment. Returns the error.
long execute(const char* program, char** argv, char** envp)
{
    constexpr char kPath[] = "PATH=";
    long result = sys::call(__NR_execve, sys::arg(program), sys::arg(argv), sys::arg(envp));
    const char* path = nullptr;
    for (char** at = envp; path == nullptr && *at != nullptr; at++)
        if (memcmp(*at, kPath, sizeof kPath - 1) == 0)
            path = *at + sizeof kPath - 1;
    for (const char* at = argv[0]; *at != '\0'; at++)
        if (*at == '/')
            return result;
    if (result != -ENOENT || path == nullptr || argv[0][0] == '\0')
        return result;
    char file[4096];
    const std::size_t nameLen = strlen(argv[0]) + 1;
    for (const char* start = path;; start++) {
        std::size_t len = 0;
        while (start[len] != '\0' && start[len] != ':')
            len++;
        // An empty entry means the working directory, which has been tried.
        if (len != 0 && len + 1 + nameLen <= sizeof file) {
            memcpy(file, start, len);
            file[len] = '/';
            memcpy(file + len + 1, argv[0], nameLen);
            const long tried =
                sys::call(__NR_execve, sys::arg(file), sys::arg(argv), sys::arg(envp));
            if (tried != -ENOENT && tried != -ENOTDIR && tried != -EACCES)
                return tried;
            if (tried == -EACCES)
                result = tried;
        }
        start += len;
        if (*start == '\0')
            return result;
    }
}

// Everything that needs the host's privileges has been done before. This process then has all
// capabilities in the user namespace until they are dropped, and cannot be inspected.
void enter_user_namespace(const Rules& rules)
{
    if (rules->ranges == 0)
        return;
    check(sys::call(__NR_setns, wire::kSpawnerUser, CLONE_NEWUSER));
    // setns() into a user namespace may have reset the dumpable flag.
    check(sys::call(__NR_prctl, PR_SET_DUMPABLE, 0));
}

} // namespace

long write_text(int directory, const char* path, const char* text)
{
    const sys::Fd file(sys::call(__NR_openat, directory, sys::arg(path), O_WRONLY | O_CLOEXEC));
    return file.valid()
               ? sys::call(__NR_write, file.get(), sys::arg(text), static_cast<long>(strlen(text)))
               : -file.error();
}

void choose_labels(const Rules& rules, int proc)
{
    constexpr char kAttributes[] = "self/attr/";
    const char* text = rules.entries();
    for (unsigned i = 0; i < rules->entries; i++)
        text = next_text(text);
    for (unsigned i = 0; i < rules->labels; i++) {
        char path[64];
        const std::size_t len = strlen(text) + 1;
        if (len > sizeof path - sizeof kAttributes)
            fail(-EINVAL);
        memcpy(path, kAttributes, sizeof kAttributes);
        memcpy(path + sizeof kAttributes - 1, text, len);
        text = next_text(text);
        if (write_text(proc, path, text) < 0)
            fail(-EACCES);
        text = next_text(text);
    }
}

namespace {

[[noreturn]] void become_program(const Rules& rules, int proc, char** argv, char** envp)
{
    ProgramGroups::join_last(rules, wire::kSpawnerNamespace);
    // The cgroup namespace is rooted at the program's control group. In the keeper's cgroup
    // namespace, the program's cgroup path would lead through the host's groups.
    if (rules->ownControlGroup != 0)
        check(sys::call(__NR_unshare, CLONE_NEWCGROUP));
    const long nice = number(argv[1]);
    const long stack = number(argv[2]);
    const char* directory = argv[3];
    const char* program = argv[5];
    Identity user;
    choose_identity(rules, argv[4], user);

    check(sys::call(__NR_setsid)); // detaches from the caller's terminal
    sys::call(__NR_umask, 0);
    check(-replace_null_streams());
    chown_streams(rules, user);
    sys::call(__NR_umask, rules->umask);
    join_new_session_keyring();
    check(-reset_processors());
    check(sys::call(__NR_setpriority, 0 /* PRIO_PROCESS */, 0, nice));
    raise_stack(stack);
    halve_queue_memory_limit();
    set_limits(rules);
    choose_labels(rules, proc);
    enter_user_namespace(rules);
    drop_rights(rules, user);
    // After dropping rights, so that the program could have entered the directory itself.
    check(directory_enter(AT_FDCWD, directory));
    sys::call(__NR_close, wire::kSpawnerNamespace);
    sys::call(__NR_close, wire::kSpawnerUser);
    default_signals();
    fail(execute(program, argv + wire::kSpawnerFixedArgs, envp));
}

} // namespace

void set_out_of_memory_score(const Rules& rules)
{
    if (rules->oomScore == wire::kNoOomScore)
        return;
    char text[16];
    std::size_t at = sizeof text - 1;
    text[at] = '\0';
    const bool negative = rules->oomScore < 0;
    auto left = static_cast<unsigned>(negative ? -rules->oomScore : rules->oomScore);
    do
        text[--at] = static_cast<char>('0' + left % 10);
    while ((left /= 10) != 0);
    if (negative)
        text[--at] = '-';
    const long written = write_text(AT_FDCWD, "/proc/self/oom_score_adj", text + at);
    // Only root of the host may lower the score; others keep that of the caller.
    check(written == -EACCES && rules->keepScore != 0 ? 0 : written);
}

void spawner_run(char** argv, char** envp)
{
    for (int fd = wire::kSpawnerNamespace; fd < wire::kSpawnerFdEnd; fd++)
        sys::call(__NR_fcntl, fd, F_SETFD, FD_CLOEXEC);
    check(sys::call(__NR_prctl, PR_SET_DUMPABLE, 0));
    check(-reset_scheduling());
    check(-reset_memory());
    const Rules rules;
    set_out_of_memory_score(rules);
    const ProgramGroups groups(rules);
    const sys::Fd proc(rules->labels != 0 ? sys::call(__NR_openat, AT_FDCWD, sys::arg("/proc"),
                                                      O_PATH | O_DIRECTORY | O_CLOEXEC)
                                          : -EBADF);
    ProgramGroups::join_namespaces(rules, wire::kSpawnerNamespace);
    if (rules->ownNetwork != 0)
        check(-loopback_up());
    // setns on a PID namespace affects children only. CLONE_PARENT makes the new process a child of
    // the caller, which can wait for it; it has this process's exit signal. CLONE_VFORK suspends
    // this process until the new one has executed the program or has ended.
    const long pid = groups.create_process(CLONE_PARENT | CLONE_VFORK);
    if (pid == 0)
        become_program(rules, proc.get(), argv, envp);
    check(pid);
    report(wire::SpawnReport::Kind::kPid, pid);
    sys::exit_group(0);
}

} // namespace zn
