// ns_root.cpp - namespaces of other processes: their names and roots.
#include "zarnel/ns_control.h"

#include "base/failure.hpp"
#include "ns_record.hpp"
#include "system/pidfd.hpp"

#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace {

using znc::fail;
using znc::UniqueFd;

} // namespace

STATUS znnsEach(void (*visit)(nsid_t ns, const char* name, void* context), void* context)
{
    struct Visitor {
        void (*visit)(nsid_t, const char*, void*);
        void* context;
    } visitor = {visit, context};
    const auto read = [](nsid_t ns, void* to) {
        const auto* each = static_cast<Visitor*>(to);
        zn::NsRecord record;
        if (zn::ns_record_read(ns, record) == 0)
            each->visit(ns, record.name, each->context);
    };
    return zn::ns_record_each(read, &visitor) ? OK : ERROR;
}

STATUS znnsRootGet(nsid_t ns, char* path, size_t size)
{
    zn::NsRecord record;
    if (!zn::ns_record_live(ns, record))
        return ERROR;
    const std::size_t len = std::strlen(record.root);
    if (len >= size)
        return fail(ENAMETOOLONG);
    std::memcpy(path, record.root, len + 1);
    return OK;
}

int znnsRootOpen(nsid_t ns)
{
    zn::NsRecord record;
    const UniqueFd keeper = zn::ns_record_live(ns, record);
    if (!keeper)
        return -1;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/root", record.keeper);
    UniqueFd root(::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
    // If the keeper still runs now, its process id was not reused before.
    if (zn::process_ended(keeper.get(), 0))
        return fail(ESRCH);
    return root.release();
}
