/*
 * identity.c - what the process has received: capabilities, groups, signals, descriptors,
 * environment.
 */
#include "probe.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

extern char** environ;

/* Checks a status field of sixteen hexadecimal digits. */
static void has_value(const char* name, const char* field, unsigned long long wanted)
{
    const char* text = status_field(field);
    const unsigned long long value = strtoull(text, NULL, 16);
    verdict(name, isxdigit((unsigned char)text[0]) && value == wanted, "%s is \"%s\"", field, text);
}

static void check_rights(void)
{
    has_value("capabilities-effective", "CapEff", PROBE_CAPABILITIES);
    has_value("capabilities-permitted", "CapPrm", PROBE_CAPABILITIES);
    has_value("capabilities-bounding", "CapBnd", PROBE_CAPABILITIES);
    has_value("capabilities-inheritable", "CapInh", 0);
    has_value("capabilities-ambient", "CapAmb", 0);
    has_value("no-new-privileges", "NoNewPrivs", 1);
    has_value("call-filter", "Seccomp", 2);
    verdict("supplementary-groups", getgroups(0, NULL) == 0, "%d of them", getgroups(0, NULL));
    struct rlimit queues = {0, 0};
    getrlimit(RLIMIT_MSGQUEUE, &queues);
    verdict("queue-memory-limit", queues.rlim_max <= 819200 / 2, "%llu bytes",
            (unsigned long long)queues.rlim_max);
}

static void check_signals(void)
{
    has_value("signals-blocked", "SigBlk", 0);
    has_value("signals-ignored", "SigIgn", 0);
}

static void check_descriptors(void)
{
    char name[64];
    struct stat st;
    int leaked = -1;
    for (int fd = 3; fd < 65536 && leaked < 0; fd++)
        if (fcntl(fd, F_GETFD) >= 0)
            leaked = fd;
    verdict("descriptors-above-2", leaked < 0, "descriptor %d is open", leaked);
    for (int fd = 0; fd <= 2; fd++) {
        snprintf(name, sizeof name, "stream-%d-is-open", fd);
        verdict(name, fstat(fd, &st) == 0, "%s", strerror(errno));
        snprintf(name, sizeof name, "stream-%d-leads-nowhere", fd);
        refused(name, openat(fd, "..", O_PATH | O_CLOEXEC), ENOTDIR, 0);
    }
}

static void check_environment(void)
{
    const char* stranger = "";
    for (char** one = environ; *one != NULL; one++)
        if (strncmp(*one, "PROBE_", 6) != 0 && strncmp(*one, "PATH=", 5) != 0)
            stranger = *one;
    verdict("environment", *stranger == '\0', "it holds %s", stranger);
    char cwd[PATH_MAX];
    const char* where = getcwd(cwd, sizeof cwd) != NULL ? cwd : "";
    const char* wanted = *setting("CWD") != '\0' ? setting("CWD") : "/";
    verdict("working-directory", strcmp(where, wanted) == 0, "it is \"%s\"", where);
    const mode_t mask = umask(022);
    verdict("umask", mask == 022, "it is %03o", (unsigned)mask);
    verdict("own-session", getsid(0) == getpid(), "it is that of process %d", (int)getsid(0));
    const int persona = personality(0xffffffff);
    verdict("personality", persona == 0, "it is %x", (unsigned)persona);
}

/* Checks a setting that every program must start with. */
static void begins_with(const char* name, long value, long wanted)
{
    verdict(name, value == wanted, "it is %ld", value);
}

static void check_scheduling(void)
{
    begins_with("scheduling-policy", sched_getscheduler(0), SCHED_OTHER);
    begins_with("disk-priority", syscall(SYS_ioprio_get, 1, 0), 0);
    begins_with("timer-slack", prctl(PR_GET_TIMERSLACK), 50000);
    begins_with("huge-pages-off", prctl(PR_GET_THP_DISABLE, 0, 0, 0, 0), 0);
    begins_with("secure-bits", prctl(PR_GET_SECUREBITS), 0);
}

static void check_limits(void)
{
    struct rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_max++;
    refused("hard-limit-raised", setrlimit(RLIMIT_NOFILE, &files), EPERM, 0);
    struct rlimit nice = {40, 40};
    refused("nice-limit-raised", setrlimit(RLIMIT_NICE, &nice), EPERM, 0);
    int score = 0;
    FILE* file = fopen("/proc/self/oom_score_adj", "r+e");
    if (file == NULL || fscanf(file, "%d", &score) != 1) {
        verdict("oom-score-lowered", false, "it cannot be read");
    } else {
        rewind(file);
        errno = 0;
        const bool written = fprintf(file, "%d", score - 1) > 0 && fflush(file) == 0;
        refused("oom-score-lowered", written ? 0 : -1, EACCES, EPERM, EINVAL, 0);
    }
    if (file != NULL)
        fclose(file);
}

void check_identity(void)
{
    check_rights();
    check_signals();
    check_descriptors();
    check_environment();
    check_scheduling();
    check_limits();
}

/* Runs this program as "probe power" as a user without capabilities. */
static int run_as_nobody(void)
{
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n < 0 || setgid(65534) != 0 || setuid(65534) != 0)
        return 255;
    self[n] = '\0';
    char* const argv[] = {self, (char*)"power", NULL};
    execv(self, argv);
    return errno == EPERM || errno == EACCES ? 0 : 255;
}

#define CAPABLE "/tmp/probe-capable"

/* Runs a copy of this program that has all file capabilities. */
static int run_capable(void)
{
    char* const argv[] = {(char*)CAPABLE, (char*)"power", NULL};
    execv(CAPABLE, argv);
    return errno == EPERM ? 0 : 255;
}

static bool copy_self(const char* path)
{
    const int in = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    const int out = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755);
    struct stat st;
    bool good = in >= 0 && out >= 0 && fstat(in, &st) == 0;
    char* bytes =
        good ? mmap(NULL, (size_t)st.st_size, PROT_READ, MAP_PRIVATE, in, 0) : (char*)MAP_FAILED;
    good = bytes != MAP_FAILED && write(out, bytes, (size_t)st.st_size) == st.st_size;
    close(in);
    close(out);
    return good;
}

void check_programs(void)
{
    const int nobody = in_child(run_as_nobody);
    verdict("set-id-program", nobody == 0, nobody == 255 ? "it cannot be tried" : "it has power");
    /* revision 2, effective, all permitted */
    const unsigned capability[5] = {0x02000001, 0xffffffff, 0, 0x1ff, 0};
    const bool made = copy_self(CAPABLE) && setxattr(CAPABLE, "security.capability", capability,
                                                     sizeof capability, 0) == 0;
    const int capable = made ? in_child(run_capable) : 255;
    unlink(CAPABLE);
    verdict("capable-program", capable != 255 && (capable & 2) == 0,
            capable == 255 ? "it cannot be tried" : "it has more capabilities");
}
