// overlay.cpp - there are no overlay devices: each bundle can be used by one container.
#include "zarnel/overlay.h"

#include "base/failure.hpp"

STATUS znOvlDevCreate(const char*, const char* const*, uint32_t, BOOL)
{
    return znc::fail(ENODEV);
}

STATUS znOvlDevRemove(const char*)
{
    return znc::fail(ENOENT);
}

uint32_t znOvlDirsMax(void)
{
    return 0;
}

STATUS znOvlDevDirs(const char*, BOOL (*)(void*, const char*), void*)
{
    return znc::fail(ENOENT);
}

STATUS znOvlDevEach(ZN_OVL_DEV_VISIT, void*)
{
    return OK;
}

BOOL znOvlDevInUse(const char*)
{
    return FALSE;
}

int znOvlSweep(void)
{
    return 0;
}

BOOL znOvlInit(void)
{
    return FALSE;
}

int znOvlRestore(void)
{
    return 0;
}
