// watch.cpp - POSIX does not report changes of directories.
#include "zarnel/watch.h"

#include "base/failure.hpp"

int znWatchOpen(int)
{
    return znc::fail(ENOTSUP);
}

void znWatchClear(int) {}
