// ns_control.cpp - there are no namespaces that could be found, measured or controlled.
#include "zarnel/ns_control.h"

#include "base/failure.hpp"

nsid_t znnsFind(const char*)
{
    return znc::fail(ESRCH);
}

STATUS znnsEach(void (*)(nsid_t, const char*, void*), void*)
{
    return OK;
}

STATUS znnsFreeze(nsid_t, BOOL)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsFrozen(nsid_t, BOOL*)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsUseGet(nsid_t, ZN_NS_USE*)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsLimitsSet(nsid_t, const char*, char*, size_t)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsRootGet(nsid_t, char*, size_t)
{
    return znc::fail(ESRCH);
}

int znnsRootOpen(nsid_t)
{
    return znc::fail(ESRCH);
}

STATUS znnsTerminalOpen(nsid_t, int*, int*)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsOwnerGet(nsid_t, uid_t*, gid_t*)
{
    return znc::fail(ESRCH);
}

STATUS znnsOwnerInsideGet(nsid_t, uid_t*, gid_t*)
{
    return znc::fail(ESRCH);
}

STATUS znnsFileOwnerSet(uid_t, gid_t)
{
    return znc::fail(ENOTSUP);
}

pid_t znnsHolder(nsid_t)
{
    return znc::fail(ESRCH);
}
