// ns_owner.cpp - who owns files in the root of a namespace.
#include "zarnel/ns_control.h"

#include "base/failure.hpp"
#include "ns_record.hpp"
#include "ns_user.hpp"
#include "system/pidfd.hpp"

#include <linux/capability.h>
#include <sys/fsuid.h>
#include <utility>

namespace {

using znc::fail;
using znc::UniqueFd;

enum class Way { kOut, kIn };

// Translates an id to the other side of the mapping. 0 or an error number.
int translate(pid_t pid, const char* file, Way way, std::uint32_t& id)
{
    zn::List<zn::IdMapping> mappings;
    const int error = zn::mappings_read(pid, file, mappings);
    if (way == Way::kIn)
        for (zn::IdMapping& one : mappings)
            std::swap(one.inside, one.outside);
    const auto other = zn::mapped_id(mappings, id);
    if (error != 0 || !other)
        return error != 0 ? error : EINVAL;
    id = *other;
    return 0;
}

STATUS translate_owner(nsid_t ns, Way way, uid_t* uid, gid_t* gid)
{
    zn::NsRecord record;
    if (!zn::ns_record_live(ns, record))
        return ERROR;
    if (record.holder == 0)
        return OK;
    const UniqueFd holder = zn::ns_record_holder(record);
    if (!holder)
        return ERROR;
    uid_t user = *uid;
    gid_t group = *gid;
    int error = translate(record.holder, "uid_map", way, user);
    if (error == 0)
        error = translate(record.holder, "gid_map", way, group);
    // If the process still runs now, its id was not reused before.
    if (error == 0 && zn::process_ended(holder.get(), 0))
        error = ESRCH;
    if (error != 0)
        return fail(error);
    *uid = user;
    *gid = group;
    return OK;
}

} // namespace

STATUS znnsOwnerGet(nsid_t ns, uid_t* uid, gid_t* gid)
{
    return translate_owner(ns, Way::kOut, uid, gid);
}

STATUS znnsOwnerInsideGet(nsid_t ns, uid_t* uid, gid_t* gid)
{
    return translate_owner(ns, Way::kIn, uid, gid);
}

STATUS znnsFileOwnerSet(uid_t uid, gid_t gid)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct capabilities[2] = {};
    if (::syscall(SYS_capget, &header, capabilities) != 0)
        return ERROR;
    ::setfsgid(gid);
    ::setfsuid(uid);
    // setfsuid() and setfsgid() return the previous id, even on failure; -1 changes nothing and so
    // reads it.
    if (static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1))) != gid ||
        static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1))) != uid)
        return fail(EPERM);
    // Changing the id from root's cleared the effective capabilities for files: restore them.
    return ::syscall(SYS_capset, &header, capabilities) == 0 ? OK : ERROR;
}
