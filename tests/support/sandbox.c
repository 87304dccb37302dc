/*
 * sandbox.c - runs a program in an isolated environment, for tests that change the system.
 *
 * usage: sandbox [--no-overlay] -- PROGRAM [ARGS...]
 *
 * The program gets new mount, IPC and network namespaces whose root is a tmpfs holding the host's
 * top-level directories as recursive binds, but for /overlay (an empty directory, or none with
 * --no-overlay), /mnt (empty), /ram0 (none), /run and /tmp (empty, tmpfs). The source and build
 * directories keep their paths. The program therefore neither sees queues, sockets, devices or
 * storage of the host nor leaves any behind. It does not inherit descriptors, blocked or ignored
 * signals, the umask, or environment variables that affect the system's tools. Needs root: it
 * fails, rather than skips, if namespaces cannot be created.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static void die(const char* what, const char* name)
{
    fprintf(stderr, "sandbox: %s %s: %s\n", what, name, strerror(errno));
    exit(120);
}

static const char* in_root(const char* root, const char* name)
{
    static char path[4096];
    snprintf(path, sizeof path, "%s/%s", root, name);
    return path;
}

/* Creates a directory of the new root and its parents. */
static void make_path(const char* path)
{
    char text[4096];
    snprintf(text, sizeof text, "%s", path);
    for (char* slash = text; (slash = strchr(slash + 1, '/')) != NULL; *slash = '/') {
        *slash = '\0';
        if (mkdir(text, 0755) != 0 && errno != EEXIST)
            die("mkdir", text);
    }
    if (mkdir(text, 0755) != 0 && errno != EEXIST)
        die("mkdir", text);
}

/*
 * The source and build directories keep their paths, even below a directory that is not visible in
 * the sandbox.
 */
static const char* const kept[] = {ZNC_SOURCE_DIR, ZNC_BINARY_DIR};
static int kept_fds[sizeof kept / sizeof *kept];

/*
 * Call this in the new mount namespace, so that only its own mounts are bound, and before /mnt is
 * covered.
 */
static void remember_kept(void)
{
    for (size_t i = 0; i < sizeof kept / sizeof *kept; i++)
        kept_fds[i] = open(kept[i], O_PATH | O_DIRECTORY | O_CLOEXEC);
}

static void show_kept(const char* root)
{
    for (size_t i = 0; i < sizeof kept / sizeof *kept; i++) {
        const char* inside = in_root(root, kept[i]);
        if (kept_fds[i] < 0 || access(inside, F_OK) == 0)
            continue;
        make_path(inside);
        char host[64];
        snprintf(host, sizeof host, "/proc/self/fd/%d", kept_fds[i]);
        if (mount(host, inside, NULL, MS_BIND | MS_REC, NULL) != 0)
            die("bind", kept[i]);
    }
}

/*
 * Adds one top-level entry of the host: directories are bind-mounted, links copied, files skipped.
 */
static void show_entry(const char* root, const char* name)
{
    static const char* const own[] = {".", "..", "overlay", "ram0", "run", "tmp", NULL};
    for (int i = 0; own[i] != NULL; i++)
        if (strcmp(name, own[i]) == 0)
            return;
    char host[300];
    snprintf(host, sizeof host, "/%s", name);
    struct stat st;
    if (lstat(host, &st) != 0)
        die("stat", host);
    const char* inside = in_root(root, name);
    if (S_ISLNK(st.st_mode)) {
        char target[4096];
        ssize_t n = readlink(host, target, sizeof target - 1);
        if (n < 0)
            die("readlink", host);
        target[n] = '\0';
        if (symlink(target, inside) != 0)
            die("symlink", inside);
    } else if (S_ISDIR(st.st_mode)) {
        if (mkdir(inside, 0755) != 0)
            die("mkdir", inside);
        if (mount(host, inside, NULL, MS_BIND | MS_REC, NULL) != 0)
            die("bind", host);
    }
}

static void own_tmpfs(const char* root, const char* name)
{
    const char* path = in_root(root, name);
    if (mkdir(path, 0755) != 0 && errno != EEXIST)
        die("mkdir", path);
    if (mount("tmpfs", path, "tmpfs", MS_NOSUID, "mode=1777") != 0)
        die("mount", path);
}

static void forget_the_caller(void)
{
    static const char* const variables[] = {
        "ZNC_BASE", "ZNC_VERBOSE", "NOTIFY_SOCKET", "JOURNAL_STREAM", "NO_COLOR",
        "TMPDIR",   "COLUMNS",     "LINES",         "LC_ALL",         NULL};
    for (int i = 0; variables[i] != NULL; i++)
        unsetenv(variables[i]);
    /* There is no network that containers could be connected with. */
    if (setenv("LANG", "C.UTF-8", 1) != 0 || setenv("ZNCCTL_NETWORK", "none", 1) != 0 ||
        close_range(3, ~0U, 0) != 0)
        die("forget", "the caller");
    umask(022);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, NULL);
    for (int signo = 1; signo < NSIG; signo++)
        signal(signo, SIG_DFL); /* fails for KILL, STOP and the signals reserved by the C library */
}

int main(int argc, char** argv)
{
    bool overlay = true;
    int i = 1;
    for (; i < argc && strcmp(argv[i], "--") != 0; i++) {
        if (strcmp(argv[i], "--no-overlay") == 0)
            overlay = false;
        else
            break;
    }
    if (i + 1 >= argc || strcmp(argv[i], "--") != 0) {
        fprintf(stderr, "usage: sandbox [--no-overlay] -- PROGRAM [ARGS...]\n");
        return 120;
    }
    forget_the_caller();
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) == NULL)
        die("getcwd", ".");
    /* A network namespace, too: abstract sockets belong to it. */
    if (unshare(CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWNET) != 0)
        die("unshare", "(are you root?)");
    if (mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0)
        die("make private", "/");
    remember_kept();
    /* The new root can be built on any directory; /mnt always exists. */
    const char* root = "/mnt";
    if (mount("tmpfs", root, "tmpfs", 0, "mode=0755") != 0)
        die("mount", root);
    DIR* top = opendir("/");
    if (top == NULL)
        die("opendir", "/");
    for (struct dirent* e; (e = readdir(top)) != NULL;)
        if (strcmp(e->d_name, "mnt") != 0)
            show_entry(root, e->d_name);
    closedir(top);
    if (mkdir(in_root(root, "mnt"), 0755) != 0)
        die("mkdir", "mnt");
    own_tmpfs(root, "run");
    own_tmpfs(root, "tmp");
    if (overlay && mkdir(in_root(root, "overlay"), 0755) != 0)
        die("mkdir", "overlay");
    show_kept(root);
    if (chdir(root) != 0 || syscall(SYS_pivot_root, ".", ".") != 0 || umount2(".", MNT_DETACH) != 0)
        die("pivot_root", root);
    if (chdir(cwd) != 0 && chdir("/") != 0)
        die("chdir", cwd);
    execvp(argv[i + 1], argv + i + 1);
    die("exec", argv[i + 1]);
    return 120;
}
