// ns_control.cpp - see zarnel/ns_control.h. Namespaces are found by their records; a record whose
// keeper has ended does not count.
#include "zarnel/ns_control.h"

#include "base/failure.hpp"
#include "cgroup/cgroup.hpp"
#include "ns_record.hpp"
#include "settings/settings_reader.hpp"

#include <cstdio>
#include <cstring>

namespace zn {
namespace {

using znc::fail;

int failed_unless(int error)
{
    return error == 0 ? OK : fail(error);
}

// Reads the record of a namespace that exists and has a control group; false with errno set.
bool record_with_group(nsid_t ns, NsRecord& record)
{
    if (!ns_record_live(ns, record))
        return false;
    if (record.group[0] != '\0')
        return true;
    return znc::fail(ENOTSUP, false);
}

struct Search {
    const char* name;
    nsid_t found;
};

void compare_name(nsid_t ns, void* context)
{
    auto* search = static_cast<Search*>(context);
    NsRecord record;
    if (search->found < 0 && ns_record_read(ns, record) == 0 &&
        std::strcmp(record.name, search->name) == 0 && ns_record_keeper(record))
        search->found = ns;
}

} // namespace
} // namespace zn

using namespace zn;

nsid_t znnsFind(const char* name)
{
    Search search = {name, -1};
    if (!ns_record_each(compare_name, &search))
        return -1;
    return search.found >= 0 ? search.found : fail(ESRCH);
}

pid_t znnsHolder(nsid_t ns)
{
    NsRecord record;
    return ns_record_live(ns, record) ? record.keeper : -1;
}

STATUS znnsFreeze(nsid_t ns, BOOL frozen)
{
    NsRecord record;
    return record_with_group(ns, record)
               ? failed_unless(cgroup_freeze(record.group, frozen != FALSE))
               : ERROR;
}

STATUS znnsFrozen(nsid_t ns, BOOL* frozen)
{
    NsRecord record;
    bool is_frozen = false;
    if (!record_with_group(ns, record) ||
        failed_unless(cgroup_frozen(record.group, is_frozen)) != OK)
        return ERROR;
    *frozen = is_frozen ? TRUE : FALSE;
    return OK;
}

STATUS znnsUseGet(nsid_t ns, ZN_NS_USE* use)
{
    NsRecord record;
    CgroupUse now;
    if (!record_with_group(ns, record) || failed_unless(cgroup_use(record.group, now)) != OK)
        return ERROR;
    *use = {now.cpuNs,     now.memory,    now.memoryLimit,  now.pids,
            now.pidsLimit, now.readBytes, now.writtenBytes, now.oomKills};
    return OK;
}

STATUS znnsLimitsSet(nsid_t ns, const char* resources, char* reason, size_t size)
{
    NsRecord record;
    Resources wanted;
    SettingsFault fault;
    if (!record_with_group(ns, record))
        return ERROR;
    int error = settings_read_resources(resources, wanted, fault);
    const char* field = nullptr;
    if (error == 0) {
        error = cgroup_limit(record.group, wanted, &field);
        std::snprintf(fault.field, sizeof fault.field, "resources%s%s", field != nullptr ? "." : "",
                      field != nullptr ? field : "");
        std::snprintf(fault.reason, sizeof fault.reason, "%s", ::strerrordesc_np(error));
    }
    if (error != 0 && size != 0)
        std::snprintf(reason, size, "%s: %s", fault.field, fault.reason);
    return failed_unless(error);
}
