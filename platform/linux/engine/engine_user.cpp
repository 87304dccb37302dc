#include "engine_user.hpp"

#include "ns_kinds.hpp"
#include "zarnel/engine.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

bool copy(const List<IdMapping>& from, List<IdMapping>& to)
{
    for (const IdMapping& one : from)
        if (to.append(one) == nullptr)
            return false;
    return true;
}

bool has_option(const MountPlan& plan, const char* key)
{
    const char* option = plan.options;
    for (unsigned i = 0; i < plan.optionCount; i++, option += std::strlen(option) + 1)
        if (std::strncmp(option, key, std::strlen(key)) == 0)
            return true;
    return false;
}

} // namespace

int EngineUser::open(const Settings& settings)
{
    const NsChoice& wanted = choice(settings, NsKind::kUser);
    if (wanted.from == NsChoice::From::kHost)
        return 0;
    if (wanted.from == NsChoice::From::kPath) {
        namespace_.reset(::open(wanted.path.get(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
        return namespace_ ? 0 : errno;
    }
    if (!copy(settings.uidMappings, uids_) || !copy(settings.gidMappings, gids_))
        return ENOMEM;
    const int error = new_.start(uids_, gids_, 0);
    if (error != 0)
        return error;
    namespace_ = new_.open_namespace();
    return namespace_ ? 0 : errno;
}

int EngineUser::read_mappings(pid_t pid)
{
    uids_ = {};
    gids_ = {};
    const int error = mappings_read(pid, "uid_map", uids_);
    return error != 0 ? error : mappings_read(pid, "gid_map", gids_);
}

std::optional<std::uint32_t> EngineUser::host_uid(std::uint32_t uid) const
{
    return namespace_ ? mapped_id(uids_, uid) : uid;
}

std::optional<std::uint32_t> EngineUser::host_gid(std::uint32_t gid) const
{
    return namespace_ ? mapped_id(gids_, gid) : gid;
}

int EngineUser::map_options(MountPlan& plan) const
{
    if (!namespace_ || plan.bind)
        return 0;
    MountPlan mapped = plan;
    mapped.optionsLen = 0;
    mapped.optionCount = 0;
    const char* option = plan.options;
    for (unsigned i = 0; i < plan.optionCount; i++, option += std::strlen(option) + 1) {
        std::uint32_t id = 0;
        char text[32];
        const bool isUid = std::sscanf(option, "uid=%u", &id) == 1;
        const bool isId = isUid || std::sscanf(option, "gid=%u", &id) == 1;
        const auto host = isUid ? host_uid(id) : host_gid(id);
        if (isId && !host)
            return EINVAL;
        if (isId)
            std::snprintf(text, sizeof text, "%s=%u", isUid ? "uid" : "gid", *host);
        if (!mount_plan_keep(isId ? text : option, mapped))
            return ENAMETOOLONG;
    }
    if (std::strcmp(plan.type, "tmpfs") == 0)
        for (const bool isUid : {true, false}) {
            char text[32];
            const auto host = isUid ? host_uid(0) : host_gid(0);
            std::snprintf(text, sizeof text, "%s=%u", isUid ? "uid" : "gid", host.value_or(0));
            if (!has_option(plan, isUid ? "uid=" : "gid=") &&
                (!host || !mount_plan_keep(text, mapped)))
                return EINVAL;
        }
    plan = mapped;
    return 0;
}

int has_own_users(pid_t pid, bool& own)
{
    char path[64];
    struct stat theirs = {};
    struct stat ours = {};
    std::snprintf(path, sizeof path, "/proc/%d/ns/user", pid);
    if (::stat(path, &theirs) != 0 || ::stat("/proc/self/ns/user", &ours) != 0)
        return errno;
    own = theirs.st_ino != ours.st_ino || theirs.st_dev != ours.st_dev;
    return 0;
}

} // namespace zn

BOOL znEngineRootless(void)
{
    constexpr std::uint32_t kAll = UINT32_MAX;
    const znc::ErrnoSaver keep;
    zn::List<zn::IdMapping> uids;
    const bool hasAll = zn::mappings_read(::getpid(), "uid_map", uids) == 0 && uids.size() == 1 &&
                        uids[0].inside == 0 && uids[0].outside == 0 && uids[0].count == kAll;
    return ::geteuid() != 0 || !hasAll ? TRUE : FALSE;
}
