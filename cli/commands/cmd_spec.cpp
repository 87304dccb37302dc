// Prints a config.json to start from: one that runs a shell, or one based on an image.
#include "cli/containers/container.hpp"
#include "cli/containers/environment.hpp"
#include "cli/containers/image_bundle.hpp"
#include "cli/images/image_mounts.hpp"
#include "cli/images/image_settings.hpp"
#include "commands.hpp"
#include "front/files.hpp"

#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>

#include "zncontainer.h"

namespace zncctl {
namespace {

void append_texts(Json& array, const Json* texts)
{
    for (const Json& text : children(texts))
        if (text.is_string())
            array.push_back(text);
}

Json mounts_of(const Json* volumes)
{
    Json mounts = Json::array();
    for (const auto& volume : children(volumes).items()) {
        const ImageMount mount = read_mount(volume.key());
        mounts.push_back({{"destination", mount.destination},
                          {"source", mount.source},
                          {"type", mount.type},
                          {"options", mount.options}});
    }
    return mounts;
}

// `image` is the "config" object of an image, or null.
Json document(const Json* image)
{
    const std::string cwd = text_of(image, "WorkingDir");
    Json args = Json::array();
    append_texts(args, member(image, "Entrypoint"));
    append_texts(args, member(image, "Cmd"));
    if (args.empty())
        args.push_back("/bin/sh");
    Json env = Json::array();
    append_texts(env, member(image, "Env"));
    if (Environment(texts_of(&env)).value("PATH") == nullptr)
        env.push_back(fmt::format("PATH={}", kDefaultPath));
    return {{"ociVersion", "1.0.0"},
            {"process", {{"cwd", cwd.empty() ? "/" : cwd}, {"args", args}, {"env", env}}},
            {"root", {{"path", "rootfs"}}},
            {"mounts", mounts_of(member(image, "Volumes"))}};
}

// Leaves out the settings that an image must not choose, as `run` does. Nullopt after printing a
// message.
std::optional<Json> document_of_image(const Arguments& args)
{
    const auto wanted = find_image(args, args.value("image"));
    const auto chosen = wanted ? choose_image(args, *wanted) : std::nullopt;
    if (!chosen)
        return std::nullopt;
    print_notes(*wanted, *chosen);
    return document(member(chosen->settled.document, "config"));
}

int write_new(const std::string& path, const std::string& text)
{
    znc::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!file || !write_all(file.get(), text) || file.close_checked() != 0)
        return failure(path, error_text());
    return kExitOk;
}

} // namespace

int cmd_spec(const Arguments& args)
{
    const auto config = args.has("image") ? document_of_image(args) : document(nullptr);
    if (!config)
        return kExitFailure;
    const std::string text = pretty(*config);
    if (const char* bundle = args.value("bundle"))
        return write_new(std::string(bundle) + "/config.json", text);
    return print_json(text);
}

} // namespace zncctl
