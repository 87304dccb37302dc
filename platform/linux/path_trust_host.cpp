// path_trust_host.cpp - user namespaces and access control lists, for znPathTrusted.
#include "platform/common/path_trust_host.hpp"

#include "ns_user.hpp"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <sys/xattr.h>
#include <unistd.h>

namespace zn {
namespace {

std::optional<id_t> shown_of(const char* map, const char* overflow) noexcept
{
    constexpr std::uint32_t kAll = UINT32_MAX;
    constexpr id_t kDefault = 65534;
    const znc::ErrnoSaver keep;
    List<IdMapping> mappings;
    // In the host's user namespace, the overflow id is an id like any other.
    if (mappings_read(::getpid(), map, mappings) != 0 ||
        (mappings.size() == 1 && mappings[0].count == kAll))
        return std::nullopt;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(overflow, "re"),
                                                               std::fclose);
    id_t shown = 0;
    return file && std::fscanf(file.get(), "%u", &shown) == 1 ? shown : kDefault;
}

} // namespace

std::optional<id_t> unmapped_uid_shown() noexcept
{
    return shown_of("uid_map", "/proc/sys/kernel/overflowuid");
}

std::optional<id_t> unmapped_gid_shown() noexcept
{
    return shown_of("gid_map", "/proc/sys/kernel/overflowgid");
}

bool may_have_access_list(int dir, const char* name) noexcept
{
    char path[PATH_MAX];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d/%s", dir, name);
    return ::getxattr(path, "system.posix_acl_access", nullptr, 0) >= 0;
}

} // namespace zn
