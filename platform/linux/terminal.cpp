// terminal.cpp - the terminal's option word over termios; only the echo bit is carried.
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
    do // changing a terminal from the background stops the process first, then goes on with EINTR
        set = tcsetattr(fd, TCSANOW, &settings);
    while (set != 0 && errno == EINTR);
    return set == 0 ? OK : ERROR;
}
