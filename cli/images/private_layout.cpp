#include "private_layout.hpp"

#include "bundle_area.hpp"
#include "front/blob.hpp"
#include "front/files.hpp"
#include "front/named_lock.hpp"

#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <stdexcept>
#include <sys/stat.h>

#include "zncontainer.h"

namespace zncctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPrefix = ".layout-";
constexpr const char* kMakingLock = "/.making-layout";

// Preparing a layout is quick, so the wait has a limit: a process that holds the lock for longer is
// stopped or hangs.
void take_turn(NamedLock& lock, const std::string& path)
{
    constexpr std::chrono::seconds kMost{10};
    if (lock.take(path, "another process prepares an image; waiting for it", kMost))
        return;
    if (errno == ETIMEDOUT)
        throw std::runtime_error(
            fmt::format("{}: locked for {} seconds by another process that prepares an image", path,
                        kMost.count()));
    throw_error(path);
}

std::string blob_name(const std::string& digest)
{
    return blob_path("", digest).substr(1);
}

Json descriptor(const std::string& media_type, const std::string& digest, std::int64_t size)
{
    return {{"mediaType", media_type}, {"digest", digest}, {"size", size}};
}

} // namespace

LayerFiles::LayerFiles(const std::string& layout, const Image& image)
{
    std::map<std::string, std::string> opened;
    for (const Descriptor& layer : image.layers) {
        std::string& path = opened[layer.digest];
        if (path.empty()) {
            files_.push_back(open_regular(blob_path(layout, layer.digest)));
            if (!files_.back())
                throw std::runtime_error(
                    fmt::format("blob {}: {}", layer.digest, read_error_text()));
            const std::string problem = size_problem(files_.back().get(), layer.digest, layer.size);
            if (!problem.empty())
                throw std::runtime_error(problem);
            path = descriptor_path(files_.back().get());
        }
        paths_.push_back(path);
    }
}

PrivateLayout::PrivateLayout(const std::string& area, const Image& image, const LayerFiles& layers,
                             const Json& configuration)
{
    // No other process may run sweep_abandoned() until the new layout is locked.
    NamedLock making;
    take_turn(making, area + kMakingLock);
    sweep_abandoned(area, kPrefix);
    dir_ = make_locked_directory(area, kPrefix, path_);
    try {
        fill(image, layers, configuration);
    } catch (...) {
        zncImageBundleDelete(path_.c_str());
        throw;
    }
}

PrivateLayout::~PrivateLayout()
{
    const znc::ErrnoSaver keep;
    zncImageBundleDelete(path_.c_str());
}

void PrivateLayout::fill(const Image& image, const LayerFiles& layers,
                         const Json& configuration) const
{
    for (const char* name : {"blobs", "blobs/sha256", "blobs/sha512"})
        if (::mkdirat(dir_.get(), name, 0700) != 0)
            throw_error(path_);
    Json list = Json::array();
    const std::vector<std::string>& files = layers.paths();
    for (std::size_t i = 0; i < image.layers.size(); i++) {
        const Descriptor& layer = image.layers[i];
        list.push_back(descriptor(layer.media_type, layer.digest, layer.size));
        // A manifest may list the same layer twice.
        if (::symlinkat(files[i].c_str(), dir_.get(), blob_name(layer.digest).c_str()) != 0 &&
            errno != EEXIST)
            throw_error(path_);
    }
    const Json manifest = {{"schemaVersion", 2},
                           {"config", add_blob(image.config.media_type, compact(configuration))},
                           {"layers", std::move(list)}};
    const Json index = {
        {"schemaVersion", 2},
        {"manifests", Json::array({add_blob(image.manifest.media_type, compact(manifest))})}};
    write("index.json", compact(index));
    write("oci-layout", R"({"imageLayoutVersion": "1.0.0"})");
}

Json PrivateLayout::add_blob(const std::string& media_type, const std::string& bytes) const
{
    const std::string digest = digest_of(bytes);
    write(blob_name(digest), bytes);
    return descriptor(media_type, digest, static_cast<std::int64_t>(bytes.size()));
}

void PrivateLayout::write(const std::string& name, const std::string& text) const
{
    znc::UniqueFd file(::openat(dir_.get(), name.c_str(),
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file || !write_all(file.get(), text) || file.close_checked() != 0)
        throw_error(path_);
}

} // namespace zncctl
