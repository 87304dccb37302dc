/*
 * forger.c - a container's program that tries to make its caller believe in an end that is none.
 * Static, since it runs where there is nothing but itself.
 *
 *   trace     makes the caller its tracer and stops, never to go on
 *   parent    makes a child of the caller that ends with 3, and ends with 7 itself
 *   litter N  makes N children of the caller that end at once, prints "made", reads to the end of
 *             its input and ends with 8
 *   leave     makes a child of the caller that goes on for ever, and ends with 4
 */
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <unistd.h>

/* 0 in the child. */
static long make_sibling(void)
{
    const long pid = syscall(SYS_clone, CLONE_PARENT, 0, 0, 0, 0);
    if (pid < 0)
        _exit(99);
    return pid;
}

static int trace(void)
{
    if (ptrace(PTRACE_TRACEME, 0, NULL, NULL) != 0)
        return 98;
    raise(SIGUSR1);
    return 97;
}

static int parent(void)
{
    const long pid = make_sibling();
    if (pid == 0)
        _exit(3);
    /* The sibling is gone from this namespace once it has ended and was reaped. */
    while (kill((pid_t)pid, 0) == 0)
        usleep(1000);
    return 7;
}

static int litter(int count)
{
    char byte;
    for (int i = 0; i < count; i++)
        if (make_sibling() == 0)
            _exit(3);
    if (write(1, "made\n", 5) != 5)
        return 96;
    while (read(0, &byte, 1) > 0) {
    }
    return 8;
}

static int leave(void)
{
    if (make_sibling() == 0)
        for (;;)
            pause();
    return 4;
}

int main(int argc, char** argv)
{
    const char* what = argc > 1 ? argv[1] : "";
    if (strcmp(what, "trace") == 0)
        return trace();
    if (strcmp(what, "parent") == 0)
        return parent();
    if (strcmp(what, "litter") == 0 && argc > 2)
        return litter(atoi(argv[2]));
    return strcmp(what, "leave") == 0 ? leave() : 64;
}
