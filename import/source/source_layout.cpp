#include "base64.hpp"
#include "source_kinds.hpp"

#include <fmt/format.h>
#include <set>
#include <string_view>

namespace zncimport {
namespace {

constexpr int kIndexDepth = 4;
constexpr std::size_t kDescriptorsMax = 10'000;
using zncctl::kRefName;
constexpr const char* kFullName = "io.containerd.image.name";

constexpr std::string_view kManifest = "application/vnd.oci.image.manifest.v1+json";
constexpr std::string_view kDockerManifest = "application/vnd.docker.distribution.manifest.v2+json";
constexpr std::string_view kIndex = "application/vnd.oci.image.index.v1+json";
constexpr std::string_view kDockerIndex =
    "application/vnd.docker.distribution.manifest.list.v2+json";
constexpr std::string_view kConfig = "application/vnd.oci.image.config.v1+json";
constexpr std::string_view kDockerConfig = "application/vnd.docker.container.image.v1+json";
constexpr std::string_view kLayers[] = {
    "application/vnd.oci.image.layer.v1.tar",
    "application/vnd.oci.image.layer.v1.tar+gzip",
    "application/vnd.oci.image.layer.v1.tar+zstd",
    "application/vnd.docker.image.rootfs.diff.tar",
    "application/vnd.docker.image.rootfs.diff.tar.gzip",
    "application/vnd.docker.image.rootfs.diff.tar.zstd",
};

bool is_manifest(std::string_view type)
{
    return type == kManifest || type == kDockerManifest;
}

bool is_index(std::string_view type)
{
    return type == kIndex || type == kDockerIndex;
}

bool is_layer(std::string_view type)
{
    for (const std::string_view known : kLayers)
        if (type == known)
            return true;
    return false;
}

struct Descriptor {
    std::string type;
    std::string digest;
    std::int64_t size = 0;
    std::string data; // the embedded blob in Base64; "" if there is none
};

Descriptor read_descriptor(const zncctl::Json* json, const std::string& where)
{
    Descriptor result = {zncctl::text_of(json, "mediaType"), zncctl::text_of(json, "digest"), 0,
                         zncctl::text_of(json, "data")};
    if (!is_digest(result.digest))
        throw Failure(where, "has an invalid digest");
    result.size = zncctl::integer(zncctl::member(json, "size")).value_or(-1);
    if (result.size < 0)
        throw Failure(where, fmt::format("the size of {} is invalid", result.digest));
    return result;
}

std::string blob_name(const std::string& digest)
{
    return "blobs/" + digest.substr(0, 6) + "/" + digest.substr(7);
}

std::string decode(const Descriptor& descriptor)
{
    auto bytes = decode_base64(descriptor.data);
    if (!bytes)
        throw Failure(descriptor.digest, "the embedded data is not valid Base64");
    return std::move(*bytes);
}

// The properties that an index defines for an image, which nested indexes inherit.
struct Context {
    std::vector<std::string> names;
    const zncctl::Json* annotations = nullptr;
    const zncctl::Json* platform = nullptr;
};

class LayoutSource : public Source {
  public:
    LayoutSource(ImageFilesPtr files, const Limits& limits)
        : files_(std::move(files)), documents_(limits.json)
    {
    }

    std::vector<SourceImage> images() override
    {
        check_version();
        const std::optional<FilePart> index = files_->find("index.json");
        if (!index)
            throw Failure("index.json", "is missing in the layout");
        const zncctl::Json json = parse_document(documents_.read(*index, "", -1), "index.json");
        images_.clear();
        descriptors_ = 0;
        walk(json, "index.json", {}, 1);
        return std::move(images_);
    }

    ReaderPtr open(const Layer& layer) override;

  private:
    // Any version number is accepted, but duplicate members are refused: parsers disagree about
    // them.
    void check_version()
    {
        const std::optional<FilePart> file = files_->find("oci-layout");
        if (!file)
            return;
        zncctl::JsonNotes notes;
        static_cast<void>(zncctl::parse_json(documents_.read(*file, "", -1), &notes));
        if (notes.duplicate_key)
            throw Failure("oci-layout", notes.problem);
    }

    std::optional<std::string> document(const Descriptor& descriptor);
    void walk(const zncctl::Json& index, const std::string& where, const Context& above, int depth);
    void visit(const Descriptor& descriptor, const Context& context, int depth);
    SourceImage image_of(const Descriptor& descriptor, const Context& context);
    void read_manifest(SourceImage& image, const zncctl::Json& manifest);
    void read_layers(SourceImage& image, const zncctl::Json& manifest) const;

    ImageFilesPtr files_;
    Documents documents_;
    std::vector<SourceImage> images_;
    std::size_t descriptors_ = 0;
};

// Returns nothing if the blob does not exist.
std::optional<std::string> LayoutSource::document(const Descriptor& descriptor)
{
    if (!descriptor.data.empty())
        return documents_.take(decode(descriptor), descriptor.digest, descriptor.size);
    const std::optional<FilePart> file = files_->find(blob_name(descriptor.digest));
    if (!file)
        return std::nullopt;
    return documents_.read(*file, descriptor.digest, descriptor.size);
}

Context context_of(const zncctl::Json& entry, const Context& above)
{
    Context context = above;
    if (const zncctl::Json* own = zncctl::member(entry, "annotations"); zncctl::is_object(own)) {
        context.annotations = own;
        std::vector<std::string> names;
        for (const char* key : {kRefName, kFullName})
            if (const std::string name = zncctl::text_of(own, key); !name.empty())
                names.push_back(name);
        if (!names.empty())
            context.names = names;
    }
    if (const zncctl::Json* own = zncctl::member(entry, "platform"); zncctl::is_object(own))
        context.platform = own;
    return context;
}

void LayoutSource::walk(const zncctl::Json& index, const std::string& where, const Context& above,
                        int depth)
{
    if (zncctl::member(index, "layers") != nullptr || zncctl::member(index, "config") != nullptr)
        throw Failure(where, "is both an index and a manifest");
    const zncctl::Json* entries = zncctl::member(index, "manifests");
    if (!zncctl::is_array(entries))
        throw Failure(where, "has no list of manifests");
    for (const zncctl::Json& entry : *entries) {
        if (++descriptors_ > kDescriptorsMax)
            throw Failure(where, fmt::format("there are more than {} images", kDescriptorsMax));
        visit(read_descriptor(&entry, where), context_of(entry, above), depth);
    }
}

void LayoutSource::visit(const Descriptor& descriptor, const Context& context, int depth)
{
    if (!is_index(descriptor.type)) {
        images_.push_back(image_of(descriptor, context));
        return;
    }
    if (depth == kIndexDepth)
        throw Failure(descriptor.digest,
                      fmt::format("indexes are nested more than {} levels deep", kIndexDepth));
    const std::optional<std::string> text = document(descriptor);
    if (!text) {
        images_.push_back(image_of(descriptor, context));
        return;
    }
    const zncctl::Json json = parse_document(*text, descriptor.digest);
    walk(json, descriptor.digest, context, depth + 1);
}

// Adds the annotations that `to` does not have yet; `seen` contains the keys that it has.
void copy_annotations(zncctl::Json& to, const zncctl::Json* from, bool of_entry,
                      std::set<std::string>& seen)
{
    if (!zncctl::is_object(from))
        return;
    for (const auto& item : from->items()) {
        const std::string& key = item.key();
        if (item.value().is_string() && !(of_entry && (key == kRefName || key == kFullName)) &&
            seen.insert(key).second)
            zncctl::append(to, key, item.value());
    }
}

SourceImage LayoutSource::image_of(const Descriptor& descriptor, const Context& context)
{
    SourceImage image;
    image.names = context.names;
    image.os = zncctl::text_of(context.platform, "os");
    image.arch = zncctl::text_of(context.platform, "architecture");
    image.variant = zncctl::text_of(context.platform, "variant");
    image.manifest_digest = descriptor.digest;
    if (!is_manifest(descriptor.type) && !is_index(descriptor.type)) {
        image.problem = fmt::format("has the type \"{}\", which is not an image", descriptor.type);
        return image;
    }
    const std::optional<std::string> text = document(descriptor);
    if (!text) {
        image.problem = fmt::format("the blob {} is missing", descriptor.digest);
        return image;
    }
    const zncctl::Json manifest = parse_document(*text, descriptor.digest);
    const std::string own_type = zncctl::text_of(manifest, "mediaType");
    if (zncctl::member(manifest, "manifests") != nullptr ||
        (!own_type.empty() && own_type != descriptor.type))
        throw Failure(descriptor.digest, "has a different media type than the index says");
    image.annotations = zncctl::Json::object();
    std::set<std::string> seen;
    copy_annotations(image.annotations, zncctl::member(manifest, "annotations"), false, seen);
    copy_annotations(image.annotations, context.annotations, true, seen);
    read_manifest(image, manifest);
    return image;
}

void LayoutSource::read_manifest(SourceImage& image, const zncctl::Json& manifest)
{
    const std::string& where = image.manifest_digest;
    const Descriptor config = read_descriptor(zncctl::member(manifest, "config"), where);
    if (config.type != kConfig && config.type != kDockerConfig) {
        image.problem = fmt::format(
            "its configuration has the type \"{}\", which is not that of an image configuration",
            config.type);
        return;
    }
    read_layers(image, manifest);
    const std::optional<std::string> text = document(config);
    if (text)
        read_config(image, *text, config.digest);
    else
        image.problem = fmt::format("the blob {} is missing", config.digest);
}

void LayoutSource::read_layers(SourceImage& image, const zncctl::Json& manifest) const
{
    const zncctl::Json* layers = zncctl::member(manifest, "layers");
    if (!zncctl::is_array(layers))
        throw Failure(image.manifest_digest, "has no list of layers");
    for (const zncctl::Json& json : *layers) {
        const Descriptor layer = read_descriptor(&json, image.manifest_digest);
        if (!is_layer(layer.type))
            image.problem = fmt::format("layers of the type \"{}\" cannot be imported", layer.type);
        else if (!layer.digest.starts_with("sha256:"))
            image.problem = fmt::format("the digest {} is not a sha256 digest", layer.digest);
        image.layers.push_back({layer.digest, layer.digest, "", layer.size});
    }
}

ReaderPtr LayoutSource::open(const Layer& layer)
{
    const std::optional<FilePart> file = files_->find(blob_name(layer.digest));
    if (!file)
        throw Failure(layer.name, "the blob is missing");
    if (file->extent.size != static_cast<std::uint64_t>(layer.size))
        throw Failure(layer.name,
                      fmt::format("the blob has {} bytes, not {}", file->extent.size, layer.size));
    return file->read();
}

} // namespace

SourcePtr layout_source(ImageFilesPtr files, const Limits& limits)
{
    return std::make_unique<LayoutSource>(std::move(files), limits);
}

} // namespace zncimport
