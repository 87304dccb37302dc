// process.cpp - POSIX cannot refer to a process by descriptor.
#include "zarnel/process.h"

#include "base/failure.hpp"

int znProcessOpen(pid_t)
{
    return znc::fail(ENOTSUP);
}

STATUS znProcessReap(int, int*)
{
    return znc::fail(ENOTSUP);
}

BOOL znProcessReapOthers(pid_t)
{
    return FALSE;
}
