/* processes.c - the namespace's keeper and processes of the host. */
#include "probe.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/kcmp.h>
#include <linux/perf_event.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

/* Opens a file of a process and reads a byte of it. */
long probe_open(const char* path, int flags)
{
    char byte;
    const int fd = open(path, flags | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return -1;
    const long n = (flags & O_ACCMODE) == O_RDONLY ? read(fd, &byte, 1) : 1;
    const int error = errno;
    close(fd);
    errno = error;
    return n < 0 ? -1 : fd;
}

static void check_keepers_files(void)
{
    static const struct {
        const char* file;
        int flags;
    } kFiles[] = {{"mem", O_RDONLY},     {"mem", O_RDWR},           {"environ", O_RDONLY},
                  {"maps", O_RDONLY},    {"smaps", O_RDONLY},       {"auxv", O_RDONLY},
                  {"pagemap", O_RDONLY}, {"stack", O_RDONLY},       {"syscall", O_RDONLY},
                  {"io", O_RDONLY},      {"personality", O_RDONLY}, {"task/1/mem", O_RDWR},
                  {"exe", O_RDONLY},     {"exe", O_WRONLY},         {"fd/0", O_RDONLY}};
    static const char* const kLinks[] = {"exe",       "cwd",    "root",   "fd/0",
                                         "ns/mnt",    "ns/pid", "ns/ipc", "ns/net",
                                         "ns/cgroup", "ns/uts", "ns/user"};
    char path[64];
    char name[96];
    char target[PATH_MAX];
    for (size_t i = 0; i < sizeof kFiles / sizeof *kFiles; i++) {
        snprintf(path, sizeof path, "/proc/1/%s", kFiles[i].file);
        snprintf(name, sizeof name, "keeper-%s-%s", kFiles[i].file,
                 kFiles[i].flags == O_RDONLY ? "read" : "write");
        refused(name, probe_open(path, kFiles[i].flags), EACCES, EPERM, ENOENT, 0);
    }
    for (size_t i = 0; i < sizeof kLinks / sizeof *kLinks; i++) {
        snprintf(path, sizeof path, "/proc/1/%s", kLinks[i]);
        snprintf(name, sizeof name, "keeper-%s-link", kLinks[i]);
        refused(name, readlink(path, target, sizeof target), EACCES, EPERM, 0);
    }
    /* The list of descriptors may be visible to the owner; there is one. */
    unsigned entries = 0;
    DIR* fds = opendir("/proc/1/fd");
    while (fds != NULL && readdir(fds) != NULL)
        entries++;
    verdict("keeper-descriptors", entries <= 3, "%u entries", entries);
    if (fds != NULL)
        closedir(fds);
}

long probe_seize(int pid)
{
    return ptrace(PTRACE_SEIZE, pid, NULL, NULL);
}

long probe_read_memory(int pid)
{
    char byte;
    struct iovec here = {&byte, 1};
    struct iovec there = {(void*)0x1000, 1};
    return process_vm_readv(pid, &here, 1, &there, 1, 0);
}

static long write_memory(pid_t pid)
{
    char byte = 0;
    struct iovec here = {&byte, 1};
    struct iovec there = {(void*)0x1000, 1};
    return process_vm_writev(pid, &here, 1, &there, 1, 0);
}

static long pidfd_open_of(pid_t pid)
{
    return syscall(SYS_pidfd_open, pid, 0);
}

long probe_take_descriptor(int pid, int fd)
{
    const long pidfd = pidfd_open_of(pid);
    const long taken = pidfd < 0 ? -1 : syscall(SYS_pidfd_getfd, pidfd, fd, 0);
    const int error = errno;
    if (pidfd >= 0)
        close((int)pidfd);
    if (taken >= 0)
        close((int)taken);
    errno = error;
    return taken;
}

static long attach(void)
{
    return ptrace(PTRACE_ATTACH, 1, NULL, NULL);
}
static long seize_keeper(void)
{
    return probe_seize(1);
}
static long read_keeper(void)
{
    return probe_read_memory(1);
}
static long write_keeper(void)
{
    return write_memory(1);
}
static long take_from_keeper(void)
{
    return probe_take_descriptor(1, 0);
}
static long join_keeper(void)
{
    return syscall(SYS_setns, pidfd_open_of(1), CLONE_NEWNS);
}
static long compare_keeper(void)
{
    return syscall(SYS_kcmp, 1, getpid(), KCMP_FILES, 0, 0);
}
static long pages_of_keeper(void)
{
    return syscall(SYS_move_pages, 1, 0, NULL, NULL, NULL, 0);
}
static long locks_of_keeper(void)
{
    void* head;
    size_t len;
    return syscall(SYS_get_robust_list, 1, &head, &len);
}
static long advise_keeper(void)
{
    struct iovec there = {(void*)0x1000, 4096};
    return syscall(SYS_process_madvise, pidfd_open_of(1), &there, 1, 20 /* MADV_COLD */, 0);
}
static long watch_keeper(void)
{
    struct perf_event_attr attr = {.type = PERF_TYPE_SOFTWARE,
                                   .size = sizeof attr,
                                   .config = PERF_COUNT_SW_CPU_CLOCK,
                                   .exclude_kernel = 1};
    return syscall(SYS_perf_event_open, &attr, 1, -1, -1, 0);
}

static void check_keeper(void)
{
    static const struct attempt kAttempts[] = {
        {"keeper-attach", attach, {EPERM}},
        {"keeper-seize", seize_keeper, {EPERM}},
        {"keeper-read-memory", read_keeper, {EPERM}},
        {"keeper-write-memory", write_keeper, {EPERM}},
        {"keeper-take-descriptor", take_from_keeper, {EPERM}},
        {"keeper-join-namespaces", join_keeper, {EPERM}},
        {"keeper-compare", compare_keeper, {EPERM}},
        {"keeper-pages", pages_of_keeper, {EPERM}},
        {"keeper-locks", locks_of_keeper, {EPERM}},
        {"keeper-advise", advise_keeper, {EPERM, EACCES}},
        {"keeper-watch", watch_keeper, {EPERM, EACCES}},
    };
    refused_each(kAttempts, sizeof kAttempts / sizeof *kAttempts);
    for (int signo = 1; signo <= 64; signo++)
        kill(1, signo);
    /* EPERM: it has another user, which the container's root cannot signal */
    verdict("keeper-outlives-signals", kill(1, 0) == 0 || errno == EPERM, "%s", strerror(errno));
}

static void check_host_processes(void)
{
    char list[256];
    char name[64];
    char path[64];
    snprintf(list, sizeof list, "%s", setting("PIDS"));
    char* rest = list;
    for (char* text; (text = next_element(&rest)) != NULL;) {
        const pid_t pid = atoi(text);
        /* This number may also belong to a process in the container. */
        if (pid <= 2 || pid == getpid())
            continue;
        snprintf(name, sizeof name, "host-process-%d-signal", pid);
        refused(name, kill(pid, 0), ESRCH, 0);
        snprintf(name, sizeof name, "host-process-%d-open", pid);
        refused(name, pidfd_open_of(pid), ESRCH, 0);
        snprintf(name, sizeof name, "host-process-%d-memory", pid);
        refused(name, probe_read_memory(pid), ESRCH, EPERM, 0);
        snprintf(path, sizeof path, "/proc/%d", pid);
        snprintf(name, sizeof name, "host-process-%d-in-proc", pid);
        refused(name, access(path, F_OK), ENOENT, 0);
    }
    int stranger = 0;
    DIR* proc = opendir("/proc");
    for (const struct dirent* one; proc != NULL && (one = readdir(proc)) != NULL;) {
        const pid_t pid = atoi(one->d_name);
        if (isdigit((unsigned char)one->d_name[0]) && pid != 1 && pid != getpid())
            stranger = pid;
    }
    verdict("other-processes", proc != NULL && stranger == 0, "process %d", stranger);
    if (proc != NULL)
        closedir(proc);
}

void check_processes(void)
{
    check_keepers_files();
    check_keeper();
    check_host_processes();
}
