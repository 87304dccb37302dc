// task.cpp - the processors and the background priority of the calling task, which is a thread.
#include "zarnel/task.h"

#include "base/owned.hpp"

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

// The values of linux/ioprio.h, some versions of which do not compile as C++.
constexpr int kIoPriorityOfProcess = 1;
constexpr int kIoClassIdle = 3;
constexpr int kIoClassShift = 13;

void znTaskBackgroundSet(void)
{
    const znc::ErrnoSaver keep;
    constexpr int kLowest = 19;
    const pid_t self = gettid(); // on Linux both calls apply to one thread
    setpriority(PRIO_PROCESS, static_cast<id_t>(self), kLowest);
    syscall(SYS_ioprio_set, kIoPriorityOfProcess, self, kIoClassIdle << kIoClassShift);
}

size_t znTaskProcessors(void)
{
    const znc::ErrnoSaver keep;
    // A cpuset or the CPU affinity may allow fewer processors than are online. EINVAL: the kernel's
    // CPU mask is larger than cpu_set_t (more than 1024 possible CPUs); use the number of
    // processors online.
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) == 0)
        return static_cast<size_t>(CPU_COUNT(&allowed));
    const long online = errno == EINVAL ? sysconf(_SC_NPROCESSORS_ONLN) : 1;
    return online > 0 ? static_cast<size_t>(online) : 1;
}
