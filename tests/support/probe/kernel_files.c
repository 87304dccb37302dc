/*
 * kernel_files.c - /proc and /sys: what is masked, what is read-only, and whether any file was
 * overlooked.
 */
#include "probe.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* Opens a file for writing without writing to it: a successful open is the escape. */
static long open_to_write(const char* path)
{
    const int fd = open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd >= 0)
        close(fd);
    return fd;
}

static void check_protected(void)
{
    static const char* const kFiles[] = {"/proc/sys/kernel/core_pattern",
                                         "/proc/sys/kernel/modprobe",
                                         "/proc/sys/kernel/hostname",
                                         "/proc/sys/kernel/ns_last_pid",
                                         "/proc/sys/kernel/panic",
                                         "/proc/sys/kernel/randomize_va_space",
                                         "/proc/sys/kernel/sysrq",
                                         "/proc/sys/vm/overcommit_memory",
                                         "/proc/sys/vm/panic_on_oom",
                                         "/proc/sys/fs/file-max",
                                         "/proc/sys/fs/mqueue/queues_max",
                                         "/proc/sys/net/ipv4/ip_forward",
                                         "/proc/sys/user/max_user_namespaces",
                                         "/proc/sysrq-trigger",
                                         "/proc/irq/default_smp_affinity",
                                         "/sys/kernel/rcu_expedited",
                                         "/sys/kernel/mm/transparent_hugepage/enabled",
                                         "/sys/power/state"};
    char name[128];
    for (size_t i = 0; i < sizeof kFiles / sizeof *kFiles; i++) {
        snprintf(name, sizeof name, "write-%s", kFiles[i] + 1);
        if (access(kFiles[i], F_OK) == 0)
            refused(name, open_to_write(kFiles[i]), EROFS, EACCES, 0);
        else
            not_there(name);
    }
    struct stat st;
    refused("chmod-proc-irq",
            stat("/proc/irq", &st) != 0 ? -1 : chmod("/proc/irq", st.st_mode & 07777), EROFS, EPERM,
            0);
    refused("chmod-sys", stat("/sys", &st) != 0 ? -1 : chmod("/sys", st.st_mode & 07777), EROFS, 0);
    refused("make-control-group", mkdir("/sys/fs/cgroup/probe", 0700), EROFS, ENOENT, 0);
    rmdir("/sys/fs/cgroup/probe");
}

/* Checks that a path does not exist, or is an empty directory or file that cannot be written to. */
static void is_covered(const char* path)
{
    char name[128];
    char byte;
    struct stat st;
    snprintf(name, sizeof name, "hidden-%s", path + 1);
    if (stat(path, &st) != 0) {
        not_there(name);
        return;
    }
    bool empty = false;
    if (S_ISDIR(st.st_mode)) {
        DIR* dir = opendir(path);
        unsigned entries = 0;
        while (dir != NULL && readdir(dir) != NULL)
            entries++;
        empty = dir != NULL && entries == 2;
        if (dir != NULL)
            closedir(dir);
        char below[128];
        snprintf(below, sizeof below, "%s/probe", path);
        verdict(name, empty && mkdir(below, 0700) != 0, "it has %u entries or takes one", entries);
        return;
    }
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    empty = fd >= 0 && read(fd, &byte, 1) == 0;
    if (fd >= 0)
        close(fd);
    verdict(name, empty && open_to_write(path) < 0, "it can be read or written");
}

static void check_hidden(void)
{
    static const char* const kPaths[] = {
        "/proc/acpi",          "/proc/asound",
        "/proc/dynamic_debug", "/proc/interrupts",
        "/proc/kcore",         "/proc/keys",
        "/proc/kpagecgroup",   "/proc/kpagecount",
        "/proc/kpageflags",    "/proc/latency_stats",
        "/proc/sched_debug",   "/proc/scsi",
        "/proc/timer_list",    "/proc/timer_stats",
        "/sys/firmware",       "/sys/devices/virtual/powercap",
        "/sys/fs/selinux",
    };
    for (size_t i = 0; i < sizeof kPaths / sizeof *kPaths; i++)
        is_covered(kPaths[i]);
    refused("read-proc-kmsg", open("/proc/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC), EPERM, EACCES,
            ENOENT, 0);
}

/* Files of /proc that all users may write to and that do not affect the host. */
static bool is_everybodys(const char* path)
{
    return strncmp(path, "/proc/pressure/", 15) == 0;
}

/* Finds the first file below `path` that can be opened for writing. Links are not followed. */
static bool find_writable(char* path, size_t size, unsigned* seen)
{
    DIR* dir = opendir(path);
    const size_t len = strlen(path);
    bool found = false;
    for (const struct dirent* one; dir != NULL && !found && (one = readdir(dir)) != NULL;) {
        const bool ofProcess = len == 5 && (one->d_name[0] >= '0' && one->d_name[0] <= '9');
        if (strcmp(one->d_name, ".") == 0 || strcmp(one->d_name, "..") == 0 || ofProcess)
            continue;
        struct stat st;
        snprintf(path + len, size - len, "/%s", one->d_name);
        if (lstat(path, &st) == 0 && S_ISDIR(st.st_mode)) {
            found = find_writable(path, size, seen);
        } else if (S_ISREG(st.st_mode)) {
            /* CAP_DAC_OVERRIDE permits opening even a file that has no write operation */
            ++*seen;
            found = (st.st_mode & 0222) != 0 && !is_everybodys(path) && open_to_write(path) >= 0;
        }
        if (!found)
            path[len] = '\0';
    }
    if (dir != NULL)
        closedir(dir);
    return found;
}

static void check_nothing_writable(const char* name, const char* top, unsigned atLeast)
{
    char path[4096];
    unsigned seen = 0;
    snprintf(path, sizeof path, "%s", top);
    const bool found = find_writable(path, sizeof path, &seen);
    verdict(name, !found && seen >= atLeast, "%s after %u files", found ? path : "too few", seen);
}

void check_kernel_files(void)
{
    check_protected();
    check_hidden();
    check_nothing_writable("write-anything-in-proc", "/proc", 100);
    check_nothing_writable("write-anything-in-sys", "/sys", 100);
    check_nothing_writable("write-anything-of-the-network", "/proc/self/net", 10);
}
