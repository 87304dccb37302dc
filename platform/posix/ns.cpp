// ns.cpp - there are no namespaces: creating one fails with ENOTSUP, and there is none to be
// changed.
#include "zarnel/ns.h"

#include "base/failure.hpp"

#include <cstdio>

namespace {

int refuse(char* reason, size_t size)
{
    if (reason != nullptr && size != 0)
        snprintf(reason, size, "this system has no namespaces");
    return znc::fail(ENOTSUP);
}

} // namespace

nsid_t znnsCreate(int)
{
    return znc::fail(ENOTSUP);
}

nsid_t znnsCreateConfigured(int, const char*, const char*, char* reason, size_t size)
{
    return refuse(reason, size);
}

STATUS znnsConfigurationCheck(const char*, char* reason, size_t size)
{
    return refuse(reason, size);
}

void znnsCapabilitiesEach(void (*)(const char*, BOOL, void*), void*) {}

STATUS znnsSeal(nsid_t, char* reason, size_t size)
{
    return refuse(reason, size);
}

void znnsRefusalListenerSet(void (*)(const char*, const char*)) {}

void znnsPrivilegedAllow(BOOL) {}

STATUS znnsUsersMap(BOOL mapped)
{
    return mapped == FALSE ? OK : znc::fail(ENOTSUP);
}

STATUS znnsRootfsCreate(nsid_t, const char*, const char*)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsMount(nsid_t, const char*, const char*, const char*, const char*, const char* const*)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsUmount(nsid_t, const char*, const char*, const char*, const char*, const char* const*)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsRootfsDestroy(nsid_t, const char*, const char*)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsDelete(nsid_t)
{
    return znc::fail(EINVAL);
}

STATUS znnsKill(nsid_t, int)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsProcessKill(nsid_t, OBJ_HANDLE, int)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsInUse(nsid_t, BOOL*)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsExpect(nsid_t, pid_t)
{
    return znc::fail(EINVAL);
}

STATUS znnsExpectEnd(nsid_t)
{
    return znc::fail(ENOTSUP);
}

STATUS znnsUrgentAllow(nsid_t, BOOL)
{
    return znc::fail(ENOTSUP);
}

int znnsRecover(void)
{
    return 0;
}

void znnsKillAll(void) {}

int znnsShutdown(void)
{
    return 0;
}

void znnsSparesSet(unsigned) {}

void znnsSparesMake() {}

void znnsReap(void) {}
