// stream.cpp - POSIX moves no data inside the kernel, and opens no descriptor again.
#include "zarnel/stream.h"

#include "base/failure.hpp"

ssize_t znStreamMove(int, int, size_t)
{
    return znc::fail(ENOTSUP);
}

int znStreamReopen(int)
{
    return znc::fail(ENOTSUP);
}
