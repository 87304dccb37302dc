/* newer_call.c - prints the error numbers of a system call that no kernel has yet and of one that
 * all have. */
#include <errno.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

static int error_of(long number)
{
    errno = 0;
    return syscall(number) < 0 ? errno : 0;
}

int main(void)
{
    const int newer = error_of(1000);
    const int older = error_of(SYS_getppid);
    char text[64];
    const int len = snprintf(text, sizeof text, "newer: %d, older: %d\n", newer, older);
    return write(STDOUT_FILENO, text, (size_t)len) == len ? 0 : 1;
}
