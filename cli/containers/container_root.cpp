#include "container_root.hpp"

#include "container.hpp"
#include "front/container_id.hpp"
#include "front/files.hpp"
#include "pause.hpp"

#include <array>
#include <climits>
#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "zarnel/overlay.h"

namespace zncctl {
namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// The host path of a container's root; "" with errno set.
std::string root_path(const std::string& id)
{
    std::array<char, PATH_MAX> path{};
    const nsid_t ns = namespace_of(id);
    return ns >= 0 && znnsRootGet(ns, path.data(), path.size()) == OK ? path.data() : "";
}

znc::UniqueFd open_part(const std::string& path)
{
    znc::UniqueFd dir(::open(path.c_str(), kDirFlags));
    if (!dir)
        throw_error(path);
    return dir;
}

std::string upper_path(const std::string& id)
{
    std::array<char, PATH_MAX> area{};
    if (zncBasePathGet(area.data(), area.size(), ZNC_CONTAINERS_PATH) == 0)
        throw_error("the storage base");
    return fmt::format("{}/{}/upper", area.data(), kept_id(id));
}

} // namespace

znc::UniqueFd open_container_root(const std::string& id)
{
    const std::string path = root_path(id);
    return znc::UniqueFd(path.empty() ? -1 : ::open(path.c_str(), kDirFlags));
}

RootParts open_root_parts(const std::string& id)
{
    const std::string merged = root_path(id);
    if (merged.empty())
        throw_error("its root");
    if (!merged.starts_with(ZN_OVERLAY_DIR "/"))
        return {};
    const std::string bundle = text_of(state_of(id).value_or(Json()), "bundle");
    return {open_part(upper_path(id)), open_part(root_of_bundle(bundle)), open_part(merged)};
}

} // namespace zncctl
