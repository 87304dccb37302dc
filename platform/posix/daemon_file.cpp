// daemon_file.cpp - there is no daemon.
#include "zarnel/daemon_file.h"

#include "base/failure.hpp"

STATUS znDaemonInfoWrite(int, const char*)
{
    return znc::fail(ENOTSUP);
}

STATUS znDaemonInfoRead(znDaemonInfo*)
{
    return znc::fail(ESRCH);
}
