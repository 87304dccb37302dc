// Prints a config.json to start from: one that runs a shell, or one based on an image.
#include "cli/containers/container.hpp"
#include "cli/images/image_bundle.hpp"
#include "cli/images/image_settings.hpp"
#include "commands.hpp"
#include "front/files.hpp"

#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>

#include "zncprotocol.h"

namespace zncctl {
namespace {

cJSON* child(cJSON* object, const char* name)
{
    return cJSON_AddObjectToObject(object, name);
}

void append_texts(cJSON* array, const cJSON* texts)
{
    const cJSON* text = nullptr;
    cJSON_ArrayForEach(text, texts) if (cJSON_IsString(text))
        cJSON_AddItemToArray(array, cJSON_CreateString(text->valuestring));
}

void add_mounts(cJSON* mounts, const cJSON* volumes)
{
    const cJSON* volume = nullptr;
    cJSON_ArrayForEach(volume, volumes)
    {
        Json mount(cJSON_CreateObject());
        if (zncImageGetMountInfo(mount.get(), volume->string) == OK)
            cJSON_AddItemToArray(mounts, mount.release());
    }
}

// `image` is the "config" object of an image, or null.
Json document(const cJSON* image)
{
    Json root(cJSON_CreateObject());
    add_text(root.get(), "ociVersion", "1.0.0");
    cJSON* process = child(root.get(), "process");
    const std::string cwd = text_of(image, "WorkingDir");
    add_text(process, "cwd", cwd.empty() ? "/" : cwd);
    cJSON* args = cJSON_AddArrayToObject(process, "args");
    append_texts(args, member(image, "Entrypoint"));
    append_texts(args, member(image, "Cmd"));
    if (args->child == nullptr)
        cJSON_AddItemToArray(args, cJSON_CreateString("/bin/sh"));
    cJSON* env = cJSON_AddArrayToObject(process, "env");
    append_texts(env, member(image, "Env"));
    if (env->child == nullptr)
        cJSON_AddItemToArray(
            env, cJSON_CreateString(
                     "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"));
    add_text(child(root.get(), "root"), "path", "rootfs");
    add_mounts(cJSON_AddArrayToObject(root.get(), "mounts"), member(image, "Volumes"));
    return root;
}

// Leaves out the settings that an image must not choose, as `run` does. Null after printing a
// message.
Json document_of_configuration(const std::string& layout, const cJSON* configuration)
try {
    const SettledConfiguration settled = settle_configuration(configuration, false);
    for (const std::string& note : settled.notes)
        print_warning(fmt::format("{}: {}", layout, note));
    return document(member(settled.document.get(), "config"));
} catch (const BadConfiguration& bad) {
    static_cast<void>(failure(layout, fmt::format("its configuration is refused: {}", bad.what())));
    return nullptr;
}

// Null after a message.
Json document_of_image(const Arguments& args)
{
    const Wanted wanted = wanted_image(args, split_image_name(args.value("image")));
    std::string problem;
    const auto images = read_layout(wanted.image.layout, problem);
    const Image* image =
        images ? find_image(*images, wanted.image.tag, wanted.os, wanted.arch) : nullptr;
    if (image != nullptr && image->problem.empty())
        return document_of_configuration(wanted.image.layout, image->config_document.get());
    if (image != nullptr) {
        static_cast<void>(failure(wanted.image.layout, image->problem));
        return nullptr;
    }
    if (images) {
        static_cast<void>(local_failure(S_zncLib_PLATFORM_NOT_FOUND, wanted.image.layout));
        hint_at_images(wanted.image.layout, wanted.image.tag, wanted.os, wanted.arch);
    } else {
        static_cast<void>(failure(wanted.image.layout, problem));
    }
    return nullptr;
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
    const Json config = args.has("image") ? document_of_image(args) : document(nullptr);
    if (config == nullptr)
        return kExitFailure;
    const std::string text = pretty(config.get());
    if (const char* bundle = args.value("bundle"))
        return write_new(std::string(bundle) + "/config.json", text);
    return print_json(text);
}

} // namespace zncctl
