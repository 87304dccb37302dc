// ns_keep.cpp - there are no namespaces that could be kept.
#include "zarnel/ns_keep.h"

#include "base/failure.hpp"

STATUS znnsKeepOpen(const znKeepManager*)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsKeep(nsid_t, pid_t, const void*, size_t)
{
    return znc::fail(ENOTSUP);
}

int znnsAdopt(BOOL (*)(const znKept*, void*), void (*)(const char*, nsid_t, const char*, void*),
              void*)
{
    return 0;
}

BOOL znnsKeptEnd(const znKeepManager*)
{
    return FALSE;
}

int znnsLeave()
{
    return 0;
}
