#include "source_kinds.hpp"

#include <fmt/format.h>

namespace zncimport {
namespace {

// Returns the digest contained in the file name of a configuration, "HEX.json" or
// "blobs/sha256/HEX", or "".
std::string digest_of_name(const std::string& path)
{
    std::string name = path.substr(path.rfind('/') + 1); // npos wraps to 0
    if (name.ends_with(".json"))
        name.resize(name.size() - 5);
    const std::string digest = "sha256:" + name;
    return is_digest(digest) ? digest : "";
}

class DockerSource : public Source {
  public:
    DockerSource(ImageFilesPtr files, const Limits& limits)
        : files_(std::move(files)), documents_(limits.json)
    {
    }

    std::vector<SourceImage> images() override
    {
        const zncctl::Json manifest =
            parse_document(text_at("manifest.json", ""), "manifest.json", true);
        std::vector<SourceImage> images;
        for (const zncctl::Json& entry : manifest)
            images.push_back(read_image(entry));
        return images;
    }

    ReaderPtr open(const Layer& layer) override { return file(layer.name).read(); }

  private:
    [[nodiscard]] FilePart file(const std::string& path) const
    {
        std::optional<FilePart> found = files_->find(path);
        if (!found)
            throw Failure(path, "is missing in the archive");
        return *std::move(found);
    }

    [[nodiscard]] std::string text_at(const std::string& path, const std::string& digest)
    {
        return documents_.read(file(path), digest, -1);
    }

    [[nodiscard]] SourceImage read_image(const zncctl::Json& entry)
    {
        SourceImage image;
        for (const zncctl::Json& item : zncctl::children(zncctl::member(entry, "RepoTags")))
            if (const std::string* name = zncctl::text(&item))
                image.names.push_back(*name);
        for (const zncctl::Json& item : zncctl::children(zncctl::member(entry, "Layers"))) {
            const std::string* name = zncctl::text(&item);
            if (name == nullptr)
                throw Failure("manifest.json", "a layer's name is not a string");
            image.layers.push_back({*name, "", "", size_of(*name)});
            if (image.layers.back().size < 0)
                image.problem = fmt::format("the layer {} is missing", *name);
        }
        const std::string config = zncctl::text_of(entry, "Config");
        if (config.empty())
            throw Failure("manifest.json", "an image has no configuration");
        read_config(image, text_at(config, digest_of_name(config)), config);
        return image;
    }

    // Returns -1 if there is no such file.
    [[nodiscard]] std::int64_t size_of(const std::string& path) const
    {
        const std::optional<FilePart> found = files_->find(path);
        return found ? static_cast<std::int64_t>(found->extent.size) : -1;
    }

    ImageFilesPtr files_;
    Documents documents_;
};

} // namespace

SourcePtr docker_source(ImageFilesPtr files, const Limits& limits)
{
    return std::make_unique<DockerSource>(std::move(files), limits);
}

} // namespace zncimport
