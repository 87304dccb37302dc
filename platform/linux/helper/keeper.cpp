// keeper.cpp - PID 1 of a namespace: serves its owner's requests one at a time and reaps orphans.
// It exits when the owner is gone, which ends the namespace.

#include "helper.hpp"
#include "request.hpp"
#include "sys.hpp"
#include "wire.hpp"

#include <asm/signal.h>
#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/mount.h>
#include <linux/poll.h>
#include <linux/prctl.h>
#include <linux/time_types.h>

namespace zn {
namespace {

constexpr long kNobodyUser = 65534;
constexpr int kZombieLimit = 64;

// The state of a process in this namespace, as far as needed to decide whether anything is alive.
enum class ProcessState {
    kAlive,
    kIgnored, // does not exist, or a zombie whose parent is outside
    kZombie,  // a zombie whose parent is in the namespace
};

// The start of field `number` of a stat file; `field` points to field 3.
const char* stat_field(const char* field, int number)
{
    for (int at = 3; at < number && *field != '\0'; field++)
        if (*field == ' ')
            at++;
    return field;
}

// Looks at the process `pid` in the procfs `proc`. A thread group leader that ended while other
// threads run is a zombie with more than one thread, and counts as living.
ProcessState process_state(int proc, const char* pid)
{
    char path[32];
    std::size_t at = 0;
    for (; at < 16 && pid[at] != '\0'; at++)
        path[at] = pid[at];
    memcpy(path + at, "/stat", 6);
    const sys::Fd file(sys::call(__NR_openat, proc, sys::arg(path), O_RDONLY | O_CLOEXEC));
    if (!file.valid())
        return ProcessState::kIgnored;
    char stat[512];
    const long n = sys::call(__NR_read, file.get(), sys::arg(stat), sizeof stat - 1);
    if (n <= 0)
        return ProcessState::kIgnored;
    stat[n] = '\0';
    // The second field, the name, may contain any character, so fields are counted after the last
    // ")".
    long end = n;
    while (end > 0 && stat[end] != ')')
        end--;
    if (end + 2 >= n)
        return ProcessState::kIgnored;
    const char* const state = stat + end + 2;
    const char* const parent = stat_field(state, 4);
    const char* const threads = stat_field(state, 20);
    if (*state != 'Z' && *state != 'X')
        return ProcessState::kAlive;
    if (threads[0] > '1' || (threads[0] == '1' && threads[1] >= '0' && threads[1] <= '9'))
        return ProcessState::kAlive;
    return parent[0] >= '1' && parent[0] <= '9' ? ProcessState::kZombie : ProcessState::kIgnored;
}

// The pidfd of one of the first processes of the namespace that is alive, or none. It becomes
// readable when the last thread ends. For almost every running container this finds the first
// process and avoids the much slower mount of a procfs.
sys::Fd early_live_process()
{
    constexpr long kFirst = 2;
    constexpr long kEnd = 10;
    for (long pid = kFirst; pid < kEnd; pid++) {
        sys::Fd process(sys::call(__NR_pidfd_open, pid, 0));
        if (!process.valid())
            continue;
        pollfd ended = {process.get(), POLLIN, 0};
        const __kernel_timespec now = {};
        if (sys::call(__NR_ppoll, sys::arg(&ended), 1, sys::arg(&now), 0, 0) == 0)
            return process;
    }
    return sys::Fd();
}

struct DirectoryEntry { // linux_dirent64
    std::uint64_t inode;
    std::int64_t offset;
    unsigned short length;
    unsigned char type;
    char name[1];
};

// `process`: one that is alive, if it was found by its descriptor.
int in_use(std::uint64_t* used, sys::Fd& process)
{
    process = early_live_process();
    *used = process.valid() ? 1 : 0;
    if (*used != 0 || sys::call(__NR_kill, -1, 0) == -ESRCH)
        return 0;
    // Processes exist, but may all be zombies whose parents are outside. Look at them in a detached
    // procfs.
    const sys::Fd proc(filesystem_create("proc", MOUNT_ATTR_NOSUID, nullptr, 0));
    if (!proc.valid())
        return proc.error();
    const sys::Fd list(
        sys::call(__NR_openat, proc.get(), sys::arg("."), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!list.valid())
        return list.error();
    alignas(DirectoryEntry) char entries[2048];
    // A zombie whose parent is in the namespace exists only as long as that parent, or a tracer, is
    // alive, because this process reaps its own children at once. So several of them mean that a
    // process is alive, which need not be searched for behind any number of zombies.
    int zombies = 0;
    for (;;) {
        const long n = sys::call(__NR_getdents64, list.get(), sys::arg(entries), sizeof entries);
        if (n <= 0)
            return static_cast<int>(-n);
        for (long at = 0; at < n;) {
            const auto* entry = reinterpret_cast<const DirectoryEntry*>(entries + at);
            at += entry->length;
            const char first = entry->name[0];
            if (first < '1' || first > '9' || text_equal(entry->name, "1"))
                continue;
            const ProcessState found = process_state(proc.get(), entry->name);
            zombies += found == ProcessState::kZombie ? 1 : 0;
            if (found == ProcessState::kAlive || zombies == kZombieLimit) {
                *used = 1;
                return 0;
            }
        }
    }
}

int serve(const Incoming& in, int descriptor, bool isSpare, std::uint64_t* value, sys::Fd& process)
{
    const wire::Request& request = in.request;
    const char* first = in.text;
    switch (request.op) {
    case wire::Op::kBareMounts:
        return root_leave();
    case wire::Op::kRoot:
        return root_enter(descriptor, first, (request.value & wire::kRootUnmasked) == 0,
                          static_cast<std::uint32_t>(request.attributes), isSpare);
    case wire::Op::kJoin:
        return namespace_join(descriptor, request.value);
    case wire::Op::kOwner:
        return owner_set(request.node.uid, request.node.gid);
    case wire::Op::kDevice:
        return device_make(first, request.node);
    case wire::Op::kSysctl:
        return parameter_set(first, next_text(first));
    case wire::Op::kHide:
        return path_hide(first);
    case wire::Op::kReadOnly:
        return path_read_only(first);
    case wire::Op::kMountTree:
        return mount_attach(descriptor, first, request.isDirectory != 0, value);
    case wire::Op::kMountFs: {
        const char* type = next_text(first);
        return mount_filesystem(first, type, request.attributes, next_text(type),
                                request.textCount - 2, value);
    }
    case wire::Op::kUnmount:
        return mount_detach(first, request.value);
    case wire::Op::kKill: {
        // One call reaches all processes except this one, including those that are being forked.
        const long result = sys::call(__NR_kill, -1, static_cast<long>(request.value));
        return result == -ESRCH ? 0 : static_cast<int>(-result);
    }
    case wire::Op::kInUse:
        return in_use(value, process);
    case wire::Op::kEnd: {
        sys::Fd alive;
        const int error = in_use(value, alive);
        if (error != 0 || *value != 0)
            sys::call(__NR_kill, -1, SIGKILL);
        return error;
    }
    case wire::Op::kPivot:
    case wire::Op::kSwitch:
    case wire::Op::kOwnMounts:
    case wire::Op::kLink:
    case wire::Op::kTerminal:
    case wire::Op::kFind:
    case wire::Op::kSettle:
    case wire::Op::kWait:
    case wire::Op::kStore:
    case wire::Op::kDrop:
        break;
    }
    return EINVAL;
}

void initialize(const char* name)
{
    sys::call(__NR_prctl, PR_SET_DUMPABLE, 0);
    sys::call(__NR_prctl, PR_SET_NAME, sys::arg(name));
    // A process with the same real, effective and saved user ids may change this process's limits;
    // no process has three different ones.
    sys::call(__NR_setresuid, -1, -1, kNobodyUser);
    sys::call(__NR_setsid);
    sys::call(__NR_umask, 0);
    // Ignoring SIGCHLD makes the kernel reap orphans that are reparented to this process. All other
    // signals were blocked by the owner; only processes outside the PID namespace can kill PID 1.
    struct {
        void* handler;
        unsigned long flags;
        void* restorer;
        unsigned long mask;
    } ignore = {};
    ignore.handler = reinterpret_cast<void*>(1); // SIG_IGN
    sys::call(__NR_rt_sigaction, SIGCHLD, sys::arg(&ignore), 0, sizeof ignore.mask);
}

[[noreturn]] void serve_all(bool isSpare)
{
    Incoming in;
    for (bool isFirst = true;; isFirst = false) {
        sys::Fd descriptor;
        if (!request_receive(wire::kKeeperSocket, in, descriptor))
            sys::exit_group(0);
        if (isSpare && isFirst)
            sys::call(__NR_prctl, PR_SET_NAME, sys::arg(wire::kKeeperName));
        wire::Answer answer = {};
        sys::Fd process;
        answer.error = serve(in, descriptor.get(), isSpare, &answer.value, process);
        request_answer(wire::kKeeperSocket, in.request, answer,
                       process.valid() ? process.get() : -1);
        // Exit after answering: the exit may take as long as writing back the dirty data of the
        // mounts that go with this namespace.
        if (in.request.op == wire::Op::kEnd && answer.error == 0 && answer.value == 0)
            sys::exit_group(0);
    }
}

} // namespace

void keeper_run()
{
    initialize(wire::kKeeperName);
    serve_all(false);
}

void keeper_run_spare()
{
    initialize(wire::kSpareName);
    if (root_prepare() != 0)
        sys::exit_group(1);
    // Otherwise the spawner does it. The daemon may not have the capability.
    static_cast<void>(loopback_up());
    request_answer(wire::kKeeperSocket, {}, {}); // to no request: it is ready
    serve_all(true);
}

} // namespace zn
