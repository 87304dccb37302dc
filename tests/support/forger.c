/*
 * forger.c - a container's program that tries to make its caller believe in an end that is none.
 * Static, since it runs where there is nothing but itself.
 *
 *   trace   makes the caller its tracer and stops, never to go on
 *   parent  makes a child of the caller that ends with 3; ends with 7 when that is refused
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
