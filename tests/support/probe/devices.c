/* devices.c - the contents of /dev, creating devices, and the caller's terminal. */
#include "probe.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

static void check_making(void)
{
    char disk[64];
    snprintf(disk, sizeof disk, "%s", *setting("DISK") != '\0' ? setting("DISK") : "8,0");
    char* rest = disk;
    const unsigned major = (unsigned)atoi(next_element(&rest));
    const unsigned minor = rest != NULL ? (unsigned)atoi(rest) : 0;
    const struct {
        const char* name;
        const char* path;
        mode_t type;
        dev_t device;
    } kNodes[] = {{"make-disk", "/tmp/probe-node", S_IFBLK, makedev(major, minor)},
                  {"make-memory-device", "/tmp/probe-node", S_IFCHR, makedev(1, 1)},
                  {"make-log-device", "/tmp/probe-node", S_IFCHR, makedev(1, 11)},
                  {"make-disk-in-dev", "/dev/probe-node", S_IFBLK, makedev(major, minor)},
                  {"make-disk-in-dev-shm", "/dev/shm/probe-node", S_IFBLK, makedev(major, minor)}};
    for (size_t i = 0; i < sizeof kNodes / sizeof *kNodes; i++) {
        refused(kNodes[i].name, mknod(kNodes[i].path, kNodes[i].type | 0600, kNodes[i].device),
                EPERM, 0);
        unlink(kNodes[i].path);
    }
}

/* Device nodes contained in the image. */
static void check_image_nodes(void)
{
    char list[1024];
    char name[128];
    snprintf(list, sizeof list, "%s", setting("NODES"));
    char* rest = list;
    for (char* path; (path = next_element(&rest)) != NULL;) {
        snprintf(name, sizeof name, "open-image-node-%s", path + 1);
        refused(name, open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC), EACCES, EPERM, 0);
    }
}

static void check_absent(void)
{
    static const char* const kNodes[] = {"mem",   "kmem",        "port",           "kmsg",
                                         "kvm",   "fuse",        "loop-control",   "vda",
                                         "sda",   "net/tun",     "mapper/control", "autofs",
                                         "vsock", "userfaultfd", "hwrng",          "console"};
    char path[64];
    char name[64];
    for (size_t i = 0; i < sizeof kNodes / sizeof *kNodes; i++) {
        snprintf(path, sizeof path, "/dev/%s", kNodes[i]);
        snprintf(name, sizeof name, "absent-dev-%s", kNodes[i]);
        refused(name, access(path, F_OK), ENOENT, 0);
    }
}

static bool is_listed(const char* name, const char* const* list)
{
    for (; *list != NULL; list++)
        if (strcmp(name, *list) == 0)
            return true;
    return false;
}

/* Checks that a directory contains only these entries. */
static void holds_only(const char* name, const char* path, const char* const* list)
{
    char stranger[256] = "";
    DIR* dir = opendir(path);
    for (const struct dirent* one; dir != NULL && (one = readdir(dir)) != NULL;)
        if (one->d_name[0] != '.' && !is_listed(one->d_name, list))
            snprintf(stranger, sizeof stranger, "%s", one->d_name);
    verdict(name, dir != NULL && *stranger == '\0', "%s",
            dir == NULL ? "it cannot be read" : stranger);
    if (dir != NULL)
        closedir(dir);
}

static void check_present(void)
{
    static const char* const kDev[] = {"null",  "zero",   "full",   "random", "urandom", "tty",
                                       "ptmx",  "pts",    "shm",    "mqueue", "fd",      "core",
                                       "stdin", "stdout", "stderr", NULL};
    static const char* const kPts[] = {"ptmx", NULL};
    static const char* const kNone[] = {NULL};
    holds_only("dev-holds-only", "/dev", kDev);
    holds_only("terminals-of-the-host", "/dev/pts", kPts);
    holds_only("shared-memory-of-the-host", "/dev/shm", kNone);
    static const struct {
        const char* path;
        unsigned minor;
    } kNodes[] = {{"/dev/null", 3},
                  {"/dev/zero", 5},
                  {"/dev/full", 7},
                  {"/dev/random", 8},
                  {"/dev/urandom", 9}};
    char name[64];
    for (size_t i = 0; i < sizeof kNodes / sizeof *kNodes; i++) {
        struct stat st = {0};
        snprintf(name, sizeof name, "genuine-%s", kNodes[i].path + 1);
        const bool seen = lstat(kNodes[i].path, &st) == 0;
        verdict(name, seen && S_ISCHR(st.st_mode) && st.st_rdev == makedev(1, kNodes[i].minor),
                "it is %o %u:%u", (unsigned)st.st_mode, major(st.st_rdev), minor(st.st_rdev));
    }
}

/* Attempts to inject input into the caller's terminal and to make it the controlling terminal. */
static void check_terminal(void)
{
    char name[64];
    char key = '\0';
    for (int fd = 0; fd <= 2; fd++) {
        snprintf(name, sizeof name, "type-on-stream-%d", fd);
        refused(name, ioctl(fd, TIOCSTI, &key), ENOTTY, EPERM, EIO, EINVAL, 0);
    }
    refused("take-terminal", ioctl(0, TIOCSCTTY, 1), ENOTTY, EPERM, EINVAL, 0);
    const int tty = open("/dev/tty", O_RDWR | O_CLOEXEC);
    refused("open-own-terminal", tty, ENXIO, 0);
    if (tty >= 0) {
        refused("type-on-own-terminal", ioctl(tty, TIOCSTI, &key), EPERM, EIO, 0);
        close(tty);
    }
    /* Nor does reopening the stream's file make it the controlling terminal. */
    const int again = open("/proc/self/fd/0", O_RDWR | O_CLOEXEC);
    if (again >= 0) {
        refused("type-on-reopened-stream", ioctl(again, TIOCSTI, &key), ENOTTY, EPERM, EIO, EINVAL,
                0);
        close(again);
    }
}

void check_devices(void)
{
    check_making();
    check_image_nodes();
    check_absent();
    check_present();
    check_terminal();
}
