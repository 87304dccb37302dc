#include "pause.hpp"

#include "front/container_id.hpp"

#include <cerrno>

namespace zncctl {

nsid_t namespace_of(const std::string& id)
{
    return znnsFind(kept_id(id).c_str());
}

bool is_paused(const std::string& id, CONTAINER_STATUS status)
{
    if (status != STATE_RUNNING)
        return false;
    const nsid_t ns = namespace_of(id);
    BOOL frozen = FALSE;
    return ns >= 0 && znnsFrozen(ns, &frozen) == OK && frozen != FALSE;
}

std::set<std::string> paused_ids()
{
    std::set<std::string> ids;
    const auto add = [](nsid_t ns, const char* name, void* to) {
        BOOL frozen = FALSE;
        if (znnsFrozen(ns, &frozen) == OK && frozen != FALSE)
            static_cast<std::set<std::string>*>(to)->insert(name);
    };
    static_cast<void>(znnsEach(add, &ids)); // if listing fails, no container counts as paused
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
