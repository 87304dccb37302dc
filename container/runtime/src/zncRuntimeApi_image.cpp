// zncRuntimeApi_image.cpp - the client functions for images. They run in the caller's process,
// without the daemon.
#include "base/failure.hpp"
#include "zncOwned.hpp"
#include "zncprotocol.h"

char* zncImageInfoGet(const char* ociPath)
{
    if (ociPath == nullptr)
        return znc::fail(EINVAL, nullptr);
    const znc::CJsonPtr array(cJSON_CreateArray());
    if (!array)
        return znc::fail(ENOMEM, nullptr);
    const int error = zncImageInspect(ociPath, array.get());
    if (error != 0)
        return znc::fail(error, nullptr);
    return cJSON_Print(array.get());
}

STATUS zncUnpack(const char* bundlePath, const char* ociPath, const char* tag, unsigned int option,
                 const ZNC_BUNDLE_ATTR* pAttr)
{
    if (bundlePath == nullptr || ociPath == nullptr)
        return znc::fail(EINVAL);
    return zncImageUnpack(bundlePath, ociPath, tag, option, pAttr);
}
