#include "image_users.hpp"

#include "container.hpp"
#include "container_bundle.hpp"
#include "front/files.hpp"
#include "front/json.hpp"

#include <fcntl.h>
#include <nlohmann/json.hpp>

#include "zncontainer.h"

namespace zncctl {
namespace {

// A file in the directory of a bundle, outside the root.
constexpr const char* kImage = ".image";

} // namespace

bool write_image_of_bundle(const std::string& bundle, const std::string& manifest)
{
    const znc::UniqueFd dir(
        ::open(bundle.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return dir && replace_file(dir.get(), kImage, manifest);
}

std::string image_of_bundle(const std::string& bundle)
{
    if (auto own = read_file(bundle + "/" + kImage))
        return *std::move(own);
    const std::string source = source_of_bundle(bundle);
    return source.empty() ? "" : read_file(source + "/" + kImage).value_or("");
}

std::optional<std::map<std::string, std::vector<std::string>>> containers_of_images()
{
    std::map<std::string, std::vector<std::string>> users;
    const std::optional<Json> states = all_states();
    if (!states && errno == S_zncLib_DAEMON_NOT_RUNNING)
        return users;
    if (!states)
        return std::nullopt;
    for (const Json& state : *states)
        if (const std::string image = image_of_bundle(text_of(state, "bundle")); !image.empty())
            users[image].push_back(text_of(state, "id"));
    return users;
}

} // namespace zncctl
