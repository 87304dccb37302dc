#include "pause.hpp"

#include "front/container_id.hpp"

#include <cerrno>

namespace zncctl {

nsid_t namespace_of(const std::string& id)
{
    return znnsFind(kept_id(id).c_str());
}

bool is_paused(nsid_t ns)
{
    BOOL frozen = FALSE;
    return znnsFrozen(ns, &frozen) == OK && frozen != FALSE;
}

bool is_paused(const std::string& id, CONTAINER_STATUS status)
{
    if (status != STATE_RUNNING)
        return false;
    const nsid_t ns = namespace_of(id);
    return ns >= 0 && is_paused(ns);
}

NamespaceIds namespaces_by_id()
{
    NamespaceIds ids;
    const auto add = [](nsid_t ns, const char* name, void* to) {
        static_cast<NamespaceIds*>(to)->emplace(name, ns);
    };
    static_cast<void>(znnsEach(add, &ids));
    return ids;
}

STATUS resume_if_paused(const std::string& id)
{
    const nsid_t ns = namespace_of(id);
    BOOL frozen = FALSE;
    if (ns < 0 || znnsFrozen(ns, &frozen) != OK)
        return errno == ESRCH || errno == ENOTSUP ? OK : ERROR;
    return frozen != FALSE ? znnsFreeze(ns, FALSE) : OK;
}

} // namespace zncctl
