#include "image_user.hpp"

#include "cli/containers/config_check.hpp"
#include "cli/containers/container.hpp"
#include "cli/containers/user_lookup.hpp"
#include "front/container_id.hpp"
#include "front/files.hpp"
#include "image_bundle.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace zncctl {
namespace {

constexpr const char* kConfig = "config.json";
constexpr const char* kOverlayDir = "/overlay/";
constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool sets_home(const Json& process)
{
    for (const Json& item : children(member(process, "env")))
        if (const std::string* pair = text(&item); pair != nullptr && pair->starts_with("HOME="))
            return true;
    return false;
}

void add_home(Json& process, const std::string& home)
{
    if (sets_home(process))
        return;
    if (!is_array(member(process, "env")))
        process["env"] = Json::array();
    process["env"].push_back("HOME=" + home);
}

Json user_member(const User& user)
{
    Json result = {{"uid", user.uid}, {"gid", user.gid}};
    if (!user.groups.empty())
        result["additionalGids"] = user.groups;
    return result;
}

// Root, if the image names no user, needs no entry: then only the home directory is looked up.
bool look_up(const std::string& bundle, const std::string& text, User& user, std::string& problem)
{
    const std::string path = root_of_bundle(bundle);
    const znc::UniqueFd root(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root) {
        problem = fmt::format("{}: {}", path, error_text());
        return false;
    }
    std::string error;
    if (lookup_user(root.get(), text, user, error) || text.empty())
        return true;
    problem = fmt::format("the image's user '{}': {}", printable(text), error);
    return false;
}

} // namespace

bool set_image_user(const std::string& bundle, const std::string& user, std::string& problem)
{
    User found;
    if (!look_up(bundle, user, found, problem))
        return false;
    const znc::UniqueFd dir(::open(bundle.c_str(), kDirFlags));
    const auto content = dir ? read_file(kConfig, dir.get()) : std::nullopt;
    auto config = content ? parse_config(*content) : std::nullopt;
    if (!config || !is_object(member(*config, "process"))) {
        problem = fmt::format("{}/{} cannot be read", bundle, kConfig);
        return false;
    }
    Json& process = (*config)["process"];
    if (!user.empty())
        process["user"] = user_member(found);
    add_home(process, found.home);
    if (replace_file(dir.get(), kConfig, pretty(*config), true))
        return true;
    problem = fmt::format("{}/{}: {}", bundle, kConfig, error_text());
    return false;
}

bool open_root_to_users(const std::string& id, const std::string& bundle)
{
    constexpr mode_t kClosed = 0700;
    constexpr mode_t kOpen = 0755;
    if (zncOvlFsAvailable() == FALSE)
        return true;
    const std::string root = root_of_bundle(bundle);
    if (!root.starts_with(kOverlayDir) && !root.starts_with(storage_base() + "/"))
        return true;
    const znc::UniqueFd dir(::open((kOverlayDir + kept_id(id)).c_str(), kDirFlags));
    struct stat st = {};
    if (!dir || ::fstat(dir.get(), &st) != 0)
        return false;
    return (st.st_mode & 07777U) != kClosed || ::fchmod(dir.get(), kOpen) == 0;
}

} // namespace zncctl
