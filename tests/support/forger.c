/*
 * forger.c - a container's program that tries to make its caller believe that it has ended. It is
 * linked statically, because it is the only file in its container.
 *
 *   trace   makes the caller its tracer and stops forever
 *   parent  creates a child of the caller that exits with 3; exits with 7 if that is refused
 */
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <unistd.h>

static int trace(void)
{
    if (ptrace(PTRACE_TRACEME, 0, NULL, NULL) != 0)
        return 98;
    raise(SIGUSR1);
    return 97;
}

static int parent(void)
{
    const long pid = syscall(SYS_clone, CLONE_PARENT, 0, 0, 0, 0);
    if (pid == 0)
        _exit(3);
    return pid < 0 && errno == EPERM ? 7 : 99;
}

int main(int argc, char** argv)
{
    const char* what = argc > 1 ? argv[1] : "";
    if (strcmp(what, "trace") == 0)
        return trace();
    return strcmp(what, "parent") == 0 ? parent() : 64;
}
