// spawn.cpp - programs run in namespaces only, of which there are none.
#include "zarnel/spawn.h"

#include "base/failure.hpp"

STATUS znSpawn(pid_t*, const char* path, const znSpawnAttr*, char* const*, char* const*)
{
    return znc::fail(path == nullptr ? EINVAL : ENOTSUP);
}
