#include "layout.hpp"

#include "blob.hpp"
#include "files.hpp"
#include "output.hpp"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <set>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "zncontainer.h"

namespace zncctl {
namespace {

// All documents of a layout together: what they say is kept in memory, many times as large.
constexpr std::size_t kDocumentsMax = 16 * 1024 * 1024;
constexpr std::size_t kImagesMax = 10'000;

// A document that is refused: this layout is not read any further.
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

    // Nothing, and `problem` says why, when it cannot be read. Throws Refusal.
    std::optional<Json> document(const std::string& name, std::string& problem)
    {
        const auto text = read_file(layout_ + "/" + name);
        if (!text)
            problem = fmt::format("{}: {}", name, read_error_text());
        return text ? parse(*text, name, problem) : std::nullopt;
    }

    // The same of a blob, whose size and content must be what the descriptor says.
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
            problem = fmt::format("blob {} has another content", digest);
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

// What the index entry says, as far as it is no path to anything.
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
    // The library takes such an entry for no platform, and such a name for no name.
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

// Nothing after `problem` was set. Throws Refusal.
std::optional<std::vector<Image>> read_images(const std::string& path, std::string& problem)
{
    LayoutReader reader(path);
    std::string ignored; // of a layout without this file the index may still be listed
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
        print_hint(fmt::format("no image {} for {}/{} is there; the layout holds: {}", tag, os,
                               arch, fmt::join(held, ", ")));
    return true;
}

} // namespace zncctl
