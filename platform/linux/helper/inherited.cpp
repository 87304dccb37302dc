// inherited.cpp - resets what a program would inherit from its caller and must not: scheduling, CPU
// affinity, memory policies, and the host's null device. Resource limits, the control group and the
// out-of-memory score are kept, since an administrator uses them to limit the processes that a
// caller starts.

#include "helper.hpp"
#include "sys.hpp"

#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/mount.h>
#include <linux/openat2.h>
#include <linux/prctl.h>
#include <linux/stat.h>

namespace zn {
namespace {

constexpr long kSchedOther = 0;
constexpr long kIoPriorityOfProcess = 1;
constexpr long kTimerSlackNs = 50000; // the default of the kernel
constexpr long kMemoryPolicyDefault = 0;
constexpr long kSetMemoryMerge = 67; // PR_SET_MEMORY_MERGE, since Linux 6.4
constexpr long kKeeperPid = 1;       // its process id in the PID namespace of the container
constexpr std::size_t kProcessorsMax = 8192;

constexpr unsigned kNullMajor = 1;
constexpr unsigned kNullMinor = 3;

// The error number of `result`; 0 for ENOSYS (this kernel was built without the feature).
int error_unless_absent(long result)
{
    return result < 0 && result != -ENOSYS ? static_cast<int>(-result) : 0;
}

bool is_null_device(int fd)
{
    struct statx st = {};
    return sys::call(__NR_statx, fd, sys::arg(""), AT_EMPTY_PATH, STATX_TYPE, sys::arg(&st)) == 0 &&
           (st.stx_mode & kTypeMask) == kCharDevice && st.stx_rdev_major == kNullMajor &&
           st.stx_rdev_minor == kNullMinor;
}

sys::Fd open_container_null(std::uint64_t flags)
{
    open_how how = {};
    how.flags = flags | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_SYMLINKS;
    sys::Fd null(
        sys::call(__NR_openat2, AT_FDCWD, sys::arg("/dev/null"), sys::arg(&how), sizeof how));
    return null.valid() && is_null_device(null.get()) ? static_cast<sys::Fd&&>(null) : sys::Fd();
}

// The null device in the container's /dev, which the program could open itself. The container may
// have put another file there: so its type is checked first, and it is opened without blocking, for
// example because of a lease.
sys::Fd container_null()
{
    if (!open_container_null(O_PATH).valid())
        return sys::Fd();
    sys::Fd null = open_container_null(O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (null.valid() && sys::call(__NR_fcntl, null.get(), F_SETFL, O_RDWR) < 0)
        return sys::Fd();
    return null;
}

// A new null device in a detached file system, which disappears with the last descriptor of it.
sys::Fd detached_null()
{
    const sys::Fd place(filesystem_create("tmpfs", MOUNT_ATTR_NOSUID | MOUNT_ATTR_NOEXEC,
                                          "mode=700\0size=4k\0nr_inodes=2", 3));
    if (!place.valid())
        return sys::Fd(-place.error());
    const long made = sys::call(__NR_mknodat, place.get(), sys::arg("null"), kCharDevice | 0666,
                                kNullMajor << 8 | kNullMinor);
    if (made < 0)
        return sys::Fd(made);
    return sys::Fd(
        sys::call(__NR_openat, place.get(), sys::arg("null"), O_RDWR | O_NOCTTY | O_CLOEXEC));
}

} // namespace

int reset_scheduling()
{
    const int none = 0; // struct sched_param
    const long policy = sys::call(__NR_sched_setscheduler, 0, kSchedOther, sys::arg(&none));
    if (policy < 0)
        return static_cast<int>(-policy);
    // A child's default timer slack is its parent's current one.
    const long slack = sys::call(__NR_prctl, PR_SET_TIMERSLACK, kTimerSlackNs);
    if (slack < 0)
        return static_cast<int>(-slack);
    return error_unless_absent(sys::call(__NR_ioprio_set, kIoPriorityOfProcess, 0, 0));
}

int reset_memory()
{
    const long personality = sys::call(__NR_personality, 0);
    if (personality < 0)
        return static_cast<int>(-personality);
    // Errors are ignored: EINVAL means that the kernel does not have the setting. EPERM is possible
    // for the last two, but a caller that may not change them cannot have set them either.
    sys::call(__NR_prctl, PR_SET_THP_DISABLE, 0, 0, 0, 0);
    sys::call(__NR_prctl, PR_MCE_KILL, PR_MCE_KILL_CLEAR, 0, 0, 0);
    sys::call(__NR_prctl, PR_SET_IO_FLUSHER, 0, 0, 0, 0);
    sys::call(__NR_prctl, kSetMemoryMerge, 0, 0, 0, 0);
    return error_unless_absent(sys::call(__NR_set_mempolicy, kMemoryPolicyDefault, 0, 0));
}

int reset_processors()
{
    unsigned long processors[kProcessorsMax / (8 * sizeof(unsigned long))];
    const long size =
        sys::call(__NR_sched_getaffinity, kKeeperPid, sizeof processors, sys::arg(processors));
    if (size < 0)
        return static_cast<int>(-size);
    long set = sys::call(__NR_sched_setaffinity, 0, size, sys::arg(processors));
    if (set == -EINVAL) {
        // The caller's cpuset contains none of the daemon's processors; use all processors of the
        // cpuset.
        memset(processors, 0xff, sizeof processors);
        set = sys::call(__NR_sched_setaffinity, 0, sizeof processors, sys::arg(processors));
    }
    return set < 0 ? static_cast<int>(-set) : 0;
}

int replace_null_streams()
{
    sys::Fd null;
    for (int stream = 0; stream <= 2; stream++) {
        if (!is_null_device(stream))
            continue;
        if (!null.valid())
            null = container_null();
        if (!null.valid())
            null = detached_null();
        // Users who may not create devices own none of the host's, and can change none.
        if (null.error() == EPERM)
            return 0;
        if (!null.valid())
            return null.error();
        const long set = sys::call(__NR_dup3, null.get(), stream, 0);
        if (set < 0)
            return static_cast<int>(-set);
    }
    return 0;
}

} // namespace zn
