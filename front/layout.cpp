#include "layout.hpp"

#include "blob.hpp"
#include "files.hpp"
#include "output.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <set>
#include <stdexcept>
#include <sys/utsname.h>
#include <unistd.h>
#include <utility>

#include "zncontainer.h"

namespace zncctl {
namespace {

// Limit for all documents of a layout together: once parsed, they need many times as much memory.
constexpr std::size_t kDocumentsMax = 16 * 1024 * 1024;
constexpr std::size_t kImagesMax = 10'000;

// Thrown for a document that makes the whole layout unacceptable.
class Refusal : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string text_of_any_case(const Json* object, std::string_view key)
{
    const std::string* found = text(any_case_member(object, key));
    return found != nullptr ? *found : "";
}

Descriptor descriptor_of(const Json* object)
{
    return {text_of_any_case(object, "mediaType"), text_of_any_case(object, "digest"),
            integer(any_case_member(object, "size")).value_or(-1)};
}

class LayoutReader {
  public:
    explicit LayoutReader(const std::string& layout) : layout_(layout) {}

    // Empty with `problem` set if the document cannot be read. Throws Refusal.
    std::optional<Json> document(const std::string& name, std::string& problem)
    {
        const auto text = read_file(layout_ + "/" + name);
        if (!text)
            problem = fmt::format("{}: {}", name, read_error_text());
        return text ? parse(*text, name, problem) : std::nullopt;
    }

    // The same for a blob; its size and digest must match the descriptor.
    std::optional<Json> blob(const Descriptor& descriptor, std::string& problem)
    {
        if (!znc::is_digest(descriptor.digest)) {
            problem = fmt::format("\"{}\" is not a digest", descriptor.digest);
            return std::nullopt;
        }
        const std::string& digest = descriptor.digest;
        const znc::UniqueFd file = open_regular(blob_path(layout_, digest));
        if (file) {
            const std::string size = size_problem(file.get(), digest, descriptor.size);
            if (!size.empty()) {
                problem = size;
                return std::nullopt;
            }
        }
        const auto text = file ? read_file(descriptor_path(file.get())) : std::nullopt;
        if (!text)
            problem = fmt::format("blob {}: {}", digest, read_error_text());
        else if (!has_digest(*text, digest))
            problem = fmt::format("blob {} does not match its digest", digest);
        else
            return parse(*text, "blob " + digest, problem);
        return std::nullopt;
    }

  private:
    std::optional<Json> parse(const std::string& text, const std::string& name,
                              std::string& problem)
    {
        read_ += text.size();
        if (read_ > kDocumentsMax)
            throw Refusal(fmt::format("{}: the documents of the layout are too large", name));
        JsonNotes notes;
        std::optional<Json> json = parse_json(text, &notes);
        if (notes.duplicate_key)
            throw Refusal(fmt::format("{}: {}", name, notes.problem));
        if (!json)
            problem = fmt::format("{}: {}", name, notes.problem);
        return json;
    }

    const std::string& layout_;
    std::size_t read_ = 0;
};

// The members of Image that the index entry itself contains. Throws Refusal.
Image image_of_entry(const Json& entry)
{
    Image image;
    image.manifest = descriptor_of(&entry);
    if (!znc::is_digest(image.manifest.digest))
        throw Refusal(fmt::format("index.json: \"{}\" is not a digest", image.manifest.digest));
    image.tag = text_of_any_case(any_case_member(entry, "annotations"), kRefName);
    const Json* platform = any_case_member(entry, "platform");
    image.platform_os = text_of_any_case(platform, "os");
    image.platform_arch = text_of_any_case(platform, "architecture");
    // The library would ignore a platform or a name of the wrong type.
    for (const char* key : {"os", "architecture"})
        if (const Json* item = any_case_member(platform, key);
            item != nullptr && text(item) == nullptr)
            image.problem = fmt::format("index.json: the platform's \"{}\" is not a text", key);
    const Json* name = any_case_member(any_case_member(entry, "annotations"), kRefName);
    if (text(name) != nullptr && image.tag.empty())
        image.problem = "index.json: the name of an image is empty";
    return image;
}

Image image_of(LayoutReader& reader, const Json& entry)
{
    Image image = image_of_entry(entry);
    std::string problem;
    const std::optional<Json> read = reader.blob(image.manifest, problem);
    const Json* manifest = read ? &*read : nullptr;
    image.config = descriptor_of(any_case_member(manifest, "config"));
    for (const Json& layer : children(any_case_member(manifest, "layers"))) {
        image.layers.push_back(descriptor_of(&layer));
        if (problem.empty() && !znc::is_digest(image.layers.back().digest))
            problem = fmt::format("\"{}\" is not a digest", image.layers.back().digest);
    }
    if (read)
        image.config_document = reader.blob(image.config, problem).value_or(Json());
    if (image.problem.empty())
        image.problem = problem;
    image.os = text_of_any_case(&image.config_document, "os");
    image.arch = text_of_any_case(&image.config_document, "architecture");
    if (image.os.empty())
        image.os = image.platform_os;
    if (image.arch.empty())
        image.arch = image.platform_arch;
    return image;
}

// Nullopt with `problem` set. Throws Refusal.
std::optional<std::vector<Image>> read_images(const std::string& path, std::string& problem)
{
    LayoutReader reader(path);
    std::string ignored; // the index can be listed even without this file
    static_cast<void>(reader.document("oci-layout", ignored));
    const std::optional<Json> index = reader.document("index.json", problem);
    if (!index)
        return std::nullopt;
    const Json* manifests = any_case_member(*index, "manifests");
    if (!is_array(manifests)) {
        problem = "index.json: \"manifests\" is no array";
        return std::nullopt;
    }
    std::vector<Image> images;
    for (const Json& entry : *manifests) {
        if (images.size() == kImagesMax)
            throw Refusal(fmt::format("index.json: more than {} images", kImagesMax));
        images.push_back(image_of(reader, entry));
    }
    return images;
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
        znc::is_directory(text.c_str()))
        return {text, kDefaultTag};
    return {text.substr(0, colon), text.substr(colon + 1)};
}

int layout_error(const std::string& path)
{
    const std::string file = path + "/oci-layout";
    if (::access(file.c_str(), F_OK) != 0)
        return S_zncLib_LAYOUT_NOT_FOUND;
    const Json document = parse_json(read_file(file).value_or("")).value_or(Json());
    const std::string version = text_of_any_case(&document, "imageLayoutVersion");
    return version == "1.0.0" ? 0 : S_zncLib_LAYOUT_INVALID;
}

std::string blob_path(const std::string& layout, const std::string& digest)
{
    if (!znc::is_digest(digest))
        return "";
    const std::size_t colon = digest.find(':');
    return fmt::format("{}/blobs/{}/{}", layout, digest.substr(0, colon), digest.substr(colon + 1));
}

std::optional<std::vector<Image>> read_layout(const std::string& path, std::string& problem,
                                              bool* refused)
try {
    return read_images(path, problem);
} catch (const Refusal& refusal) {
    problem = refusal.what();
    if (refused != nullptr)
        *refused = true;
    return std::nullopt;
}

Image read_image(const std::string& layout, const Descriptor& manifest)
{
    const Json entry = {
        {"mediaType", manifest.media_type}, {"digest", manifest.digest}, {"size", manifest.size}};
    try {
        LayoutReader reader(layout);
        return image_of(reader, entry);
    } catch (const Refusal& refusal) {
        Image image;
        image.manifest = manifest;
        image.problem = refusal.what();
        return image;
    }
}

bool has_unpackable_types(const Image& image)
{
    constexpr std::string_view kConfig = "application/vnd.oci.image.config.v1+json";
    return image.config.media_type == kConfig && !image.layers.empty() &&
           std::all_of(image.layers.begin(), image.layers.end(), [](const Descriptor& layer) {
               return layer.media_type.ends_with(".v1.tar") ||
                      layer.media_type.ends_with(".v1.tar+gzip");
           });
}

std::string size_problem(const std::string& layout, const std::vector<Image>& images)
{
    std::set<std::pair<std::string_view, double>> seen; // images share blobs
    const auto problem_of = [&](const Descriptor& blob) -> std::string {
        if (!znc::is_digest(blob.digest) || !seen.emplace(blob.digest, blob.size).second)
            return "";
        const znc::UniqueFd file = open_regular(blob_path(layout, blob.digest));
        return file ? size_problem(file.get(), blob.digest, blob.size) : "";
    };
    for (const Image& image : images) {
        std::string problem = problem_of(image.manifest);
        if (problem.empty())
            problem = problem_of(image.config);
        for (auto layer = image.layers.begin(); problem.empty() && layer != image.layers.end();
             ++layer)
            problem = problem_of(*layer);
        if (!problem.empty())
            return problem;
    }
    return "";
}

namespace {

bool is_named(const Image& image, const std::string& tag)
{
    return image.tag == tag || (image.tag.empty() && tag == kDefaultTag);
}

bool is_for(const Image& image, const std::string& os, const std::string& arch)
{
    return image.os == os && image.arch == arch && same_or_none(os, image.platform_os) &&
           same_or_none(arch, image.platform_arch);
}

// The operating system of the only image with this tag and architecture, else Linux.
std::string usual_os(const std::vector<Image>& images, const std::string& tag,
                     const std::string& arch)
{
    const auto matches = [&](const Image& image) {
        return is_named(image, tag) && is_for(image, image.os, arch);
    };
    const auto found = std::find_if(images.begin(), images.end(), matches);
    const bool single = found != images.end() && std::none_of(found + 1, images.end(), matches) &&
                        !found->os.empty();
    return single ? found->os : kHostOs;
}

} // namespace

std::string host_arch()
{
    utsname name = {};
    if (::uname(&name) != 0)
        return kDefaultArch;
    std::string machine = name.machine;
    constexpr std::pair<const char*, const char*> kNames[] = {
        {"x86_64", "amd64"}, {"aarch64", "arm64"}, {"armv7l", "arm"}, {"i686", "386"}};
    for (const auto& [of_kernel, of_images] : kNames)
        if (machine == of_kernel)
            return of_images;
    return machine; // for example "riscv64", "s390x"
}

const Image* find_image(const std::vector<Image>& images, const std::string& tag,
                        const std::string& os, const std::string& arch)
{
    const std::string wanted = os.empty() ? usual_os(images, tag, arch) : os;
    const auto found = std::find_if(images.begin(), images.end(), [&](const Image& image) {
        return is_named(image, tag) && is_for(image, wanted, arch);
    });
    return found != images.end() ? &*found : nullptr;
}

Image* find_image(std::vector<Image>& images, const std::string& tag, const std::string& os,
                  const std::string& arch)
{
    return const_cast<Image*>(find_image(std::as_const(images), tag, os, arch));
}

bool hint_at_images(const std::string& layout, const std::string& tag, const std::string& os,
                    const std::string& arch)
{
    std::string problem;
    const auto images = read_layout(layout, problem);
    if (!images || find_image(*images, tag, os, arch) != nullptr)
        return false;
    constexpr std::size_t kShown = 20;
    std::vector<std::string> held;
    for (const Image& image : *images)
        if (held.size() <= kShown)
            held.push_back(held.size() == kShown
                               ? "..."
                               : fmt::format("{} for {}/{}",
                                             image.tag.empty() ? kDefaultTag : image.tag, image.os,
                                             image.arch));
    if (held.empty())
        print_hint("the layout holds no image");
    else
        print_hint(fmt::format("no image {} for {}/{} is there; the layout holds: {}", tag,
                               os.empty() ? kHostOs : os, arch, fmt::join(held, ", ")));
    return true;
}

} // namespace zncctl
