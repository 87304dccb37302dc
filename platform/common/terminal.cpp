// terminal.cpp - terminal options over termios; only the echo bit is supported.
#include "zarnel/terminal.h"

#include <cerrno>
#include <termios.h>

STATUS znTermOptionsGet(int fd, int* options)
{
    struct termios settings;
    if (tcgetattr(fd, &settings) != 0)
        return ERROR;
    *options = (settings.c_lflag & ECHO) != 0 ? ZN_TERM_OPT_ECHO : 0;
    return OK;
}

STATUS znTermOptionsSet(int fd, int options)
{
    struct termios settings;
    if (tcgetattr(fd, &settings) != 0)
        return ERROR;
    if ((options & ZN_TERM_OPT_ECHO) != 0)
        settings.c_lflag |= ECHO;
    else
        settings.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    int set;
    do // in a background process tcsetattr stops the process and fails with EINTR when it continues
        set = tcsetattr(fd, TCSANOW, &settings);
    while (set != 0 && errno == EINTR);
    return set == 0 ? OK : ERROR;
}
