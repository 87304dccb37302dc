// task.cpp - the processors and the background priority of the calling task.
#include "zarnel/task.h"

#include "base/owned.hpp"

#include <unistd.h>

// Nothing: in POSIX priorities of processor time belong to the whole process.
void znTaskBackgroundSet(void) {}

size_t znTaskProcessors(void)
{
    const znc::ErrnoSaver keep;
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    return online > 0 ? static_cast<size_t>(online) : 1;
}
