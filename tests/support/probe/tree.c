/* tree.c - the root directory, ways out of it, and the mounts. */
#include "probe.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#define UP_10 "../../../../../../../../../../"
#define UP_100 UP_10 UP_10 UP_10 UP_10 UP_10 UP_10 UP_10 UP_10 UP_10 UP_10

/* Checks that the host's secret file cannot be reached below `prefix`. */
static void hides_secret(const char* name, const char* prefix)
{
    char path[2 * PATH_MAX];
    const char* secret = setting("SECRET");
    if (*secret == '\0')
        return;
    snprintf(path, sizeof path, "%s%s", prefix, secret + (*secret == '/' ? 1 : 0));
    refused(name, open(path, O_RDONLY | O_CLOEXEC), ENOENT, EACCES, EPERM, ENOTDIR, 0);
}

static struct stat root;

static void up(void)
{
    for (int i = 0; i < 100; i++)
        if (chdir("..") != 0)
            return;
}

/*
 * Returns 0 if the break-out attempt ended in the container's root or below it, and the host's file
 * cannot be reached.
 */
static int outcome(void)
{
    struct stat st;
    const char* secret = setting("SECRET");
    if (*secret != '\0' && access(secret + (*secret == '/' ? 1 : 0), F_OK) == 0)
        return 1;
    return stat(".", &st) == 0 && st.st_dev == root.st_dev && st.st_ino == root.st_ino ? 0 : 2;
}

#define JAIL "/tmp/probe-jail"

/*
 * The classic chroot escape: chroot into a subdirectory while holding a descriptor of a directory
 * above it.
 */
static int break_out_by_descriptor(void)
{
    const int above = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (chroot(JAIL) != 0)
        return 3;
    if (fchdir(above) != 0)
        return 3;
    up();
    if (chroot(".") != 0)
        return 3;
    up();
    return outcome();
}

/* The same with a working directory that remains above the new root. */
static int break_out_by_cwd(void)
{
    if (chdir("/tmp") != 0 || chroot(JAIL) != 0)
        return 3;
    up();
    return outcome();
}

static int break_out_twice(void)
{
    for (int i = 0; i < 2; i++) {
        if (chdir("/") != 0 || (mkdir(JAIL, 0700) != 0 && errno != EEXIST) || chroot(JAIL) != 0)
            return 3;
        mkdir("/tmp", 0700);
        up();
        if (chroot(".") != 0)
            return 3;
    }
    return outcome();
}

static void check_break_out(const char* name, int (*attempt)(void))
{
    static const char* const kText[] = {"", "the host's file is in sight",
                                        "it leads to another directory than the root",
                                        "it cannot be tried"};
    const int result = in_child(attempt);
    verdict(name, result == 0, "%s", result < 4 ? kText[result] : "the attempt died");
}

void check_root(void)
{
    hides_secret("host-file-by-its-path", "/");
    hides_secret("host-file-above-the-root", "/" UP_100);
    hides_secret("host-file-above-the-working-directory", UP_100);
    hides_secret("host-file-above-dev", "/dev/" UP_100);
    stat("/", &root);
    mkdir("/tmp", 0755);
    mkdir(JAIL, 0700);
    check_break_out("chroot-by-descriptor", break_out_by_descriptor);
    check_break_out("chroot-by-working-directory", break_out_by_cwd);
    check_break_out("chroot-twice", break_out_twice);
    rmdir(JAIL "/tmp");
    rmdir(JAIL);
}

static bool is_below(const char* path, const char* directory)
{
    const size_t len = strlen(directory);
    return strncmp(path, directory, len) == 0 && (path[len] == '\0' || path[len] == '/');
}

/* Checks every line of mountinfo: the mount point and the fields after it. */
static void check_mount_list(void)
{
    char line[4096];
    char stranger[1024] = "";
    char tied[1024] = "";
    unsigned count = 0;
    FILE* list = fopen("/proc/self/mountinfo", "re");
    while (list != NULL && fgets(line, sizeof line, list) != NULL) {
        char point[1024] = "";
        char options[1024] = "";
        if (sscanf(line, "%*d %*d %*s %*s %1023s %1023[^\n]", point, options) != 2)
            continue;
        count++;
        if (strcmp(point, "/") != 0 && !is_below(point, "/proc") && !is_below(point, "/dev") &&
            !is_below(point, "/sys"))
            snprintf(stranger, sizeof stranger, "%s", point);
        if (strstr(options, " shared:") != NULL || strstr(options, " master:") != NULL)
            snprintf(tied, sizeof tied, "%s", point);
    }
    if (list != NULL)
        fclose(list);
    verdict("mounts-of-the-host", count > 0 && *stranger == '\0', "%u, %s", count, stranger);
    verdict("mounts-tied-to-the-host", count > 0 && *tied == '\0', "%u, %s", count, tied);
}

static void has_flags(const char* path, unsigned long wanted)
{
    char name[64];
    struct statvfs fs;
    snprintf(name, sizeof name, "mount-flags-of-%s", path[1] == '\0' ? "root" : path + 1);
    const bool seen = statvfs(path, &fs) == 0;
    verdict(name, seen && (fs.f_flag & wanted) == wanted, "they are %lx", seen ? fs.f_flag : 0);
}

void check_mounts(void)
{
    check_mount_list();
    has_flags("/", ST_NOSUID | ST_NODEV);
    has_flags("/proc", ST_NOSUID | ST_NODEV | ST_NOEXEC);
    has_flags("/dev", ST_NOSUID | ST_NOEXEC);
    has_flags("/dev/pts", ST_NOSUID | ST_NOEXEC);
    has_flags("/dev/shm", ST_NOSUID | ST_NODEV | ST_NOEXEC);
    has_flags("/dev/mqueue", ST_NOSUID | ST_NODEV | ST_NOEXEC);
    has_flags("/sys", ST_NOSUID | ST_NODEV | ST_NOEXEC | ST_RDONLY);
    hides_secret("host-file-by-own-root", "/proc/self/root/");
    hides_secret("host-file-by-own-root-above", "/proc/self/root/" UP_100);
    hides_secret("host-file-by-keepers-root", "/proc/1/root/");
    hides_secret("host-file-by-keepers-cwd", "/proc/1/cwd/");
    hides_secret("host-file-by-thread-root", "/proc/thread-self/root/");
    hides_secret("host-file-by-stream-0", "/proc/self/fd/0/" UP_100);
    hides_secret("host-file-by-stream-1", "/dev/stdout/" UP_100);
}
