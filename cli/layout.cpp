#include "layout.hpp"

#include "files.hpp"
#include "output.hpp"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <sys/stat.h>

namespace zncctl {
namespace {

constexpr const char* kRefName = "org.opencontainers.image.ref.name";

Descriptor descriptor_of(const cJSON* object)
{
    const cJSON* size = member(object, "size");
    return {text_of(object, "mediaType"), text_of(object, "digest"),
            cJSON_IsNumber(size) ? size->valuedouble : -1};
}

Json read_blob(const std::string& layout, const std::string& digest)
{
    return parse_json(read_file(blob_path(layout, digest)).value_or(""));
}

Image image_of(const std::string& layout, const cJSON* entry)
{
    Image image;
    image.manifest = descriptor_of(entry);
    image.tag = text_of(member(entry, "annotations"), kRefName);
    image.platform_os = text_of(member(entry, "platform"), "os");
    image.platform_arch = text_of(member(entry, "platform"), "architecture");
    const Json manifest = read_blob(layout, image.manifest.digest);
    image.config = descriptor_of(member(manifest.get(), "config"));
    const cJSON* layer = nullptr;
    cJSON_ArrayForEach(layer, member(manifest.get(), "layers"))
        image.layers.push_back(descriptor_of(layer));
    image.config_document = read_blob(layout, image.config.digest);
    image.os = text_of(image.config_document.get(), "os");
    image.arch = text_of(image.config_document.get(), "architecture");
    if (image.os.empty())
        image.os = image.platform_os;
    if (image.arch.empty())
        image.arch = image.platform_arch;
    return image;
}

bool is_directory(const std::string& path)
{
    struct stat st = {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool same_or_none(const std::string& wanted, const std::string& given)
{
    return given.empty() || given == wanted;
}

} // namespace

ImageName split_image_name(const std::string& text)
{
    const std::size_t colon = text.rfind(':');
    if (colon == text.npos || colon == 0 || text.find('/', colon) != text.npos ||
        is_directory(text))
        return {text, kDefaultTag};
    return {text.substr(0, colon), text.substr(colon + 1)};
}

std::string blob_path(const std::string& layout, const std::string& digest)
{
    const std::size_t colon = digest.find(':');
    const std::string_view kGood = "0123456789abcdef";
    if (colon == digest.npos || colon + 1 == digest.size() ||
        digest.find_first_not_of(kGood, colon + 1) != digest.npos ||
        digest.find('/') != digest.npos)
        return "";
    return fmt::format("{}/blobs/{}/{}", layout, digest.substr(0, colon), digest.substr(colon + 1));
}

std::optional<std::vector<Image>> read_layout(const std::string& path, std::string& problem)
{
    const auto text = read_file(path + "/index.json");
    if (!text) {
        problem = fmt::format("index.json: {}", error_text());
        return std::nullopt;
    }
    std::string where;
    const Json index = parse_json(*text, &where);
    if (index == nullptr || !cJSON_IsArray(member(index.get(), "manifests"))) {
        problem = index == nullptr ? fmt::format("index.json: no JSON at {}", where)
                                   : "index.json: \"manifests\" is no array";
        return std::nullopt;
    }
    std::vector<Image> images;
    const cJSON* entry = nullptr;
    cJSON_ArrayForEach(entry, member(index.get(), "manifests"))
        images.push_back(image_of(path, entry));
    return images;
}

const Image* find_image(const std::vector<Image>& images, const std::string& tag,
                        const std::string& os, const std::string& arch)
{
    for (const Image& image : images) {
        const bool named = image.tag == tag || (image.tag.empty() && tag == kDefaultTag);
        if (named && image.os == os && image.arch == arch && same_or_none(os, image.platform_os) &&
            same_or_none(arch, image.platform_arch))
            return &image;
    }
    return nullptr;
}

bool hint_at_images(const std::string& layout, const std::string& tag, const std::string& os,
                    const std::string& arch)
{
    std::string problem;
    const auto images = read_layout(layout, problem);
    if (!images || find_image(*images, tag, os, arch) != nullptr)
        return false;
    std::vector<std::string> held;
    for (const Image& image : *images)
        held.push_back(fmt::format("{} for {}/{}", image.tag.empty() ? kDefaultTag : image.tag,
                                   image.os, image.arch));
    if (held.empty())
        print_hint("the layout holds no image");
    else
        print_hint(fmt::format("no image {} for {}/{} is there; the layout holds: {}", tag, os,
                               arch, fmt::join(held, ", ")));
    return true;
}

} // namespace zncctl
