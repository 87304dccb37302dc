/*
 * watch.c - attacks programs that are entering this namespace: until they execute the container's
 * program they have more privileges than any process in it, and must not be accessible.
 */
#include "probe.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

static const char* self_name = "";

/* Returns whether the process exists and still runs the code that enters the namespace. */
static bool is_joining(pid_t pid)
{
    char path[64];
    char comm[32] = "";
    snprintf(path, sizeof path, "/proc/%d/comm", pid);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t n = fd >= 0 ? read(fd, comm, sizeof comm - 1) : -1;
    if (fd >= 0)
        close(fd);
    return n > 0 && strncmp(comm, self_name, strlen(self_name)) != 0;
}

static long try_file(pid_t pid, const char* file, int flags)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/%s", pid, file);
    return probe_open(path, flags);
}

static long try_link(pid_t pid, const char* file)
{
    char path[64];
    char target[256];
    snprintf(path, sizeof path, "/proc/%d/%s", pid, file);
    return readlink(path, target, sizeof target);
}

/* Detaches from a seized process, so that its parent can reap it. */
static long try_seize(pid_t pid)
{
    const long seized = probe_seize(pid);
    if (seized >= 0 && !is_joining(pid)) {
        ptrace(PTRACE_INTERRUPT, pid, NULL, NULL);
        waitpid(pid, NULL, __WALL);
        ptrace(PTRACE_DETACH, pid, NULL, NULL);
    }
    return seized;
}

static long try_way(pid_t pid, unsigned way)
{
    switch (way) {
    case 0:
        return try_file(pid, "mem", O_RDONLY);
    case 1:
        return try_file(pid, "mem", O_RDWR);
    case 2:
        return try_file(pid, "environ", O_RDONLY);
    case 3:
        return try_file(pid, "maps", O_RDONLY);
    case 4:
        return try_file(pid, "exe", O_WRONLY);
    case 5:
        return try_file(pid, "exe", O_RDONLY);
    case 6:
        return try_file(pid, "fd", O_RDONLY | O_DIRECTORY | O_PATH) < 0 ? -1
                                                                        : try_link(pid, "fd/3");
    case 7:
        return try_file(pid, "fd/4", O_WRONLY);
    case 8:
        return try_link(pid, "root");
    case 9:
        return try_link(pid, "cwd");
    case 10:
        return try_link(pid, "ns/mnt");
    case 11:
        return probe_take_descriptor(pid, 3);
    case 12:
        return probe_read_memory(pid) < 0 && errno != EFAULT ? -1 : 0;
    default:
        return try_seize(pid);
    }
}

static const char* const kWays[] = {"mem", "mem-write", "environ", "maps", "exe-write",
                                    "exe", "fd-3",      "fd-4",    "root", "cwd",
                                    "ns",  "take-fd",   "memory",  "seize"};
enum { kWayCount = sizeof kWays / sizeof *kWays };

/* Returns whether the process was attacked while it was entering the namespace. */
static bool attack(pid_t pid, unsigned long* attempts, unsigned* hits)
{
    /* Use a different order for each process, because the time for an attack is short. */
    unsigned i = 0;
    for (; is_joining(pid); i++) {
        const unsigned way = (i + (unsigned)pid) % kWayCount;
        const bool worked = try_way(pid, way) >= 0;
        if (!is_joining(pid)) /* it has executed a program, which may be accessed */
            break;
        ++*attempts;
        hits[way] += worked ? 1 : 0;
    }
    return i > 0;
}

/* Returns the last process id assigned in this namespace, even if that process has ended. */
static pid_t last_pid(void)
{
    char text[128];
    int pid = 0;
    const int fd = open("/proc/loadavg", O_RDONLY | O_CLOEXEC);
    const ssize_t n = fd >= 0 ? read(fd, text, sizeof text - 1) : -1;
    if (fd >= 0)
        close(fd);
    text[n > 0 ? n : 0] = '\0';
    const char* field = strrchr(text, ' ');
    return field != NULL && sscanf(field, "%d", &pid) == 1 ? pid : 0;
}

void watch_joins(void)
{
    char name[64];
    unsigned long attempts = 0;
    unsigned seen = 0;
    unsigned hits[kWayCount] = {0};
    static char comm[17];
    snprintf(comm, sizeof comm, "%s", program_invocation_short_name);
    self_name = comm;
    close(open("/tmp/watching", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    pid_t last = last_pid();
    for (unsigned turn = 0; turn % 1024 != 0 || access("/tmp/stop", F_OK) != 0; turn++) {
        const pid_t newest = last_pid();
        if (newest == last)
            continue;
        last = newest;
        seen += attack(newest, &attempts, hits) ? 1 : 0;
    }
    for (unsigned way = 0; way < kWayCount; way++) {
        snprintf(name, sizeof name, "joining-%s", kWays[way]);
        verdict(name, hits[way] == 0, "%u times", hits[way]);
    }
    printf("saw %u, tried %lu times\n", seen, attempts);
}
