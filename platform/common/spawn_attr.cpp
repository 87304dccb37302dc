// spawn_attr.cpp - the attributes of a process to be spawned.
#include "zarnel/spawn.h"

#include "base/failure.hpp"

namespace {

constexpr int kDefaultPriority = 100;

template <class T> STATUS set_if(bool good, T& field, T value)
{
    if (!good)
        return znc::fail(EINVAL);
    field = value;
    return OK;
}

} // namespace

STATUS znSpawnAttrInit(znSpawnAttr* attr)
{
    *attr = znSpawnAttr{kDefaultPriority, 0, 0, 0, -1, nullptr, 0, nullptr};
    return OK;
}

STATUS znSpawnAttrDestroy(znSpawnAttr* attr)
{
    return znSpawnAttrInit(attr);
}

STATUS znSpawnAttrSetPriority(znSpawnAttr* attr, int priority)
{
    return set_if(priority >= 0 && priority <= 255, attr->priority, priority);
}

STATUS znSpawnAttrSetStackSize(znSpawnAttr* attr, int stackSize)
{
    return set_if(stackSize >= 0, attr->stackSize, stackSize);
}

STATUS znSpawnAttrSetOptions(znSpawnAttr* attr, int options)
{
    attr->options = options;
    return OK;
}

STATUS znSpawnAttrSetTaskOptions(znSpawnAttr* attr, int taskOptions)
{
    attr->taskOptions = taskOptions;
    return OK;
}

STATUS znSpawnAttrSetNamespace(znSpawnAttr* attr, nsid_t ns)
{
    return set_if(ns >= 0, attr->ns, ns);
}

STATUS znSpawnAttrSetCwd(znSpawnAttr* attr, const char* cwd)
{
    return set_if(cwd != nullptr && cwd[0] == '/', attr->cwd, cwd);
}

STATUS znSpawnAttrSetFlags(znSpawnAttr* attr, short flags)
{
    attr->flags = flags;
    return OK;
}

STATUS znSpawnAttrSetUser(znSpawnAttr* attr, const ZN_SPAWN_USER* user)
{
    return set_if(user == nullptr || user->groupCount <= ZN_SPAWN_GROUPS_MAX, attr->user, user);
}
