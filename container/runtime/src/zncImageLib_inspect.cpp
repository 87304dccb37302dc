// zncImageLib_inspect.cpp - describes the images of a layout as JSON, without unpacking them.
#include "zncImageLib.hpp"

#include "cJSON_Additions.h"

using znc::add;

namespace {

constexpr char kVersion[] = "1.0.1.6";

struct Member {
    const char* name;
    const char* source;
};

void copy(cJSON* from, const Member& member, cJSON* object)
{
    zncJsonCopy(from, const_cast<char*>(member.source), object, const_cast<char*>(member.name));
}

// The sum of the layer blobs' sizes, as stored in the layout.
double layers_size(const ZNC_IMAGE_MANIFEST& manifest)
{
    std::uint64_t sum = 0;
    for (int i = 0; i < manifest.manifestLayersCount; ++i)
        sum += static_cast<std::uint64_t>(cJSON_integer64_value(manifest.manifestLayers[i].size));
    return static_cast<double>(sum);
}

// A member that cannot be allocated is left out; only for the annotations is that an error.
bool describe(const ZNC_IMAGE_MANIFEST& manifest, cJSON* body)
{
    cJSON* const config = manifest.manifestConfig.imageConfig.imageConfigJson;
    (void)add(body, "Id", znc::CJsonPtr(cJSON_Duplicate(manifest.manifestConfig.digest, 1)));
    copy(manifest.manifestJson, {"RepoTags", "RepoTags"}, body);
    copy(config, {"Created", "created"}, body);
    copy(config, {"Container", "container"}, body);
    copy(config, {"ContainerConfig", "container_config"}, body);
    (void)add(body, "zncVersion", znc::CJsonPtr(cJSON_CreateString(kVersion)));
    copy(config, {"Author", "author"}, body);
    (void)zncInspectImageConfig(body, cJSON_GetObjectItem(config, "config"));
    copy(config, {"Architecture", "architecture"}, body);
    copy(config, {"Os", "os"}, body);
    const double size = layers_size(manifest);
    (void)add(body, "Size", znc::CJsonPtr(cJSON_CreateNumber(size)));
    (void)add(body, "VirtualSize", znc::CJsonPtr(cJSON_CreateNumber(size)));
    copy(config, {"RootFS", "rootfs"}, body);
    return manifest.annotations == nullptr ||
           add(body, "annotations", znc::CJsonPtr(cJSON_Duplicate(manifest.annotations, 1)));
}

bool append_image(const ZNC_IMAGE_MANIFEST& manifest, cJSON* array)
{
    znc::CJsonPtr object(cJSON_CreateObject());
    if (!object || cJSON_AddItemToArray(array, object.get()) == 0)
        return false;
    return describe(manifest, object.release());
}

// Empties the array, including items that the caller had put into it; returns the error number.
int clear_array(cJSON* array, int error)
{
    while (array->child != nullptr)
        cJSON_DeleteItemFromArray(array, 0);
    errno = error;
    return error;
}

} // namespace

int zncImageInspect(const char* ociPath, cJSON* array)
{
    if (ociPath == nullptr || array == nullptr)
        return EINVAL;
    const znc::OciImagePtr image(zncImageInfoCreate());
    if (!image)
        return errno;
    image->ociPath = ociPath;
    if (zncImageParse(image.get()) != OK)
        return clear_array(array, errno);
    for (int i = 0; i < image->manifestsCount; ++i)
        if (!append_image(image->manifests[i], array))
            return clear_array(array, ENOMEM); // out of memory is the only cause
    return 0;
}

STATUS zncInspectImageConfig(cJSON* body, cJSON* config)
{
    return add(body, "Config", znc::CJsonPtr(zncInspectImageContainer(config))) ? OK : ERROR;
}

cJSON* zncInspectImageContainer(cJSON* configJson)
{
    znc::CJsonPtr object(cJSON_CreateObject());
    if (!object)
        return nullptr;
    (void)add(object.get(), "Hostname", znc::CJsonPtr(cJSON_CreateString("Zarnel")));
    (void)add(object.get(), "Domainname", znc::CJsonPtr(cJSON_CreateString("")));
    for (const char* name : {"User", "ExposedPorts", "Env", "Cmd", "Entrypoint", "WorkingDir",
                             "Image", "Volumes", "OnBuild", "Labels", "StopSignal"})
        copy(configJson, {name, name}, object.get());
    return object.release();
}
