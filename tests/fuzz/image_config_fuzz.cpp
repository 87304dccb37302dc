// image_config_fuzz.cpp - the writer of a bundle's configuration, fed with the configuration of an
// image; the first byte says with what: 'u' a user text, 'm' a volume text, else the document.
#include "fuzz_input.hpp"
#include "memory_file.hpp"

#include "zncImageLib.hpp"

#include <string>

namespace {

using fuzz::require;

double number(const cJSON* object, const char* key)
{
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    require(cJSON_IsNumber(item) != 0, "there is a number");
    return item->valuedouble;
}

void user_text(const std::string& text)
{
    const znc::CJsonPtr object(cJSON_CreateObject());
    require(zncImageGetUsrInfo(object.get(), text.c_str()) == OK, "every text names a user");
    require(number(object.get(), "uid") >= 0 && number(object.get(), "gid") >= 0,
            "users and groups are not negative");
    require(text.empty() || text[0] != ':' || number(object.get(), "gid") == 0,
            "nothing before the colon: neither counts");
}

void mount_text(const std::string& text)
{
    const znc::CJsonPtr object(cJSON_CreateObject());
    require(zncImageGetMountInfo(object.get(), text.c_str()) == OK, "every text is a volume");
    for (const char* key : {"destination", "source", "type"}) {
        const char* value =
            cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object.get(), key));
        require(value != nullptr &&
                    (text.find(value) != std::string::npos || std::string_view(value) == "unknown"),
                "a mount's texts come from the volume's");
    }
    const cJSON* options = cJSON_GetObjectItemCaseSensitive(object.get(), "options");
    require(cJSON_IsArray(options) != 0, "a mount has options");
    const cJSON* option = nullptr;
    cJSON_ArrayForEach(option, options)
        require(std::string_view(option->valuestring).find_first_of(",:") == std::string::npos,
                "an option is one word");
}

// An image of one manifest with this configuration.
znc::OciImagePtr image_with(cJSON* document)
{
    znc::OciImagePtr image(zncImageInfoCreate());
    image->manifests = znc::malloc_array<ZNC_IMAGE_MANIFEST>(1).release();
    image->manifestsCount = 1;
    image->manifestsIndex = 0;
    image->manifests[0].manifestConfig.imageConfig.imageConfigJson = document;
    return image;
}

bool write_sections(OCI_IMAGE* image, cJSON* root)
{
    return zncCreateOciBundleConfigVersion(image, root) == OK &&
           zncCreateOciBundleConfigProcess(image, root) == OK &&
           zncCreateOciBundleConfigRoot(image, root, "/root") == OK &&
           zncCreateOciBundleConfigHostname(image, root) == OK &&
           zncCreateOciBundleConfigMounts(image, root) == OK &&
           zncCreateOciBundleConfigAnnotations(image, root) == OK &&
           zncCreateOciBundleConfigZarnel(image, root) == OK;
}

void document(std::string_view text)
{
    static const fuzz::MemoryFile memory;
    cJSON* parsed = cJSON_ParseWithLength(text.data(), text.size());
    if (parsed == nullptr)
        return;
    const znc::OciImagePtr image = image_with(parsed);
    const znc::CJsonPtr body(cJSON_CreateObject());
    require(zncInspectImageConfig(body.get(), cJSON_GetObjectItem(parsed, "config")) == OK,
            "every configuration can be shown");
    const znc::CJsonPtr root(cJSON_CreateObject());
    if (!write_sections(image.get(), root.get()))
        return;
    const znc::CJsonText printed(cJSON_Print(root.get()));
    require(printed != nullptr, "a configuration can be printed");
    runtimeSpecConfig* config = zncInitializeRuntimeSpec(memory.with(printed.get()));
    const cJSON* process = cJSON_GetObjectItem(root.get(), "process");
    require(config != nullptr || process == nullptr, "what was written can be read");
    zncDestroyRuntimeSpec(config);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    if (input.rest().starts_with('u'))
        user_text(std::string(input.rest().substr(1)));
    else if (input.rest().starts_with('m'))
        mount_text(std::string(input.rest().substr(1)));
    else
        document(input.rest());
    return 0;
}
