#include "image_store.hpp"

#include "base/failure.hpp"
#include "bundle_area.hpp"
#include "format/digest.hpp"
#include "front/files.hpp"
#include "front/json.hpp"
#include "front/output.hpp"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <sys/stat.h>

#include "zncontainer.h"

namespace zncctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kLock = "/.lock";
constexpr const char* kChanging = "another process is changing the image store; waiting for it";
constexpr const char* kStagePrefix = ".new-";
constexpr const char* kIndex = "index.json";
constexpr const char* kMarker = "oci-layout";
constexpr const char* kReserve = ".reserve";
constexpr const char* kSource = "zncontainer.source-digest";
constexpr const char* kAlgorithms[] = {"sha256", "sha512"};
constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr std::size_t kImagesMax = 10'000;

znc::UniqueFd open_directory(const std::string& path)
{
    znc::UniqueFd dir(::open(path.c_str(), kDirFlags));
    if (!dir)
        throw_error(path);
    return dir;
}

void take_lock(NamedLock& lock, const std::string& area)
{
    if (!lock.take(area + kLock, kChanging))
        throw_error(area + kLock);
}

StoredImage image_of_entry(const Json& entry)
{
    StoredImage image;
    const Json* annotations = member(entry, "annotations");
    const Json* platform = member(entry, "platform");
    image.name = text_of(annotations, kRefName);
    image.manifest = {text_of(entry, "mediaType"), text_of(entry, "digest"),
                      integer(member(entry, "size")).value_or(-1)};
    image.os = text_of(platform, "os");
    image.arch = text_of(platform, "architecture");
    image.source = text_of(annotations, kSource);
    if (!znc::is_digest(image.manifest.digest))
        throw std::runtime_error(fmt::format("\"{}\" is not a digest", image.manifest.digest));
    return image;
}

Json entry_of(const StoredImage& image)
{
    Json entry = {{"mediaType", image.manifest.media_type},
                  {"digest", image.manifest.digest},
                  {"size", image.manifest.size},
                  {"platform", {{"architecture", image.arch}, {"os", image.os}}}};
    Json annotations = Json::object();
    if (!image.name.empty())
        annotations[kRefName] = image.name;
    if (!image.source.empty())
        annotations[kSource] = image.source;
    if (!annotations.empty())
        entry["annotations"] = std::move(annotations);
    return entry;
}

std::vector<StoredImage> images_of_index(const std::string& text)
{
    JsonNotes notes;
    const std::optional<Json> index = parse_json(text, &notes);
    if (!index)
        throw std::runtime_error(notes.problem);
    const Json* manifests = member(*index, "manifests");
    if (!is_array(manifests) || manifests->size() > kImagesMax)
        throw std::runtime_error("it has no list of manifests, or too many of them");
    std::vector<StoredImage> images;
    for (const Json& entry : *manifests)
        images.push_back(image_of_entry(entry));
    return images;
}

std::vector<StoredImage> read_index(const std::string& area)
{
    const std::string path = fmt::format("{}/{}", area, kIndex);
    const std::optional<std::string> text = read_file(path);
    if (!text && errno == ENOENT)
        return {};
    if (!text)
        throw std::runtime_error(fmt::format("{}: {}", path, read_error_text()));
    try {
        return images_of_index(*text);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(fmt::format("{}: {}", path, error.what()));
    }
}

// The blobs of an image, the manifest last.
std::vector<std::string> digests_of(const Image& image)
{
    std::vector<std::string> digests;
    for (const Descriptor& layer : image.layers)
        digests.push_back(layer.digest);
    digests.push_back(image.config.digest);
    digests.push_back(image.manifest.digest);
    return digests;
}

std::string index_text(const std::vector<StoredImage>& images)
{
    Json manifests = Json::array();
    for (const StoredImage& image : images)
        manifests.push_back(entry_of(image));
    const Json index = {{"schemaVersion", 2}, {"manifests", std::move(manifests)}};
    return compact(index) + "\n";
}

// Makes the directory a layout with this index. False with errno set.
bool write_index(int dir, const std::string& text)
{
    constexpr const char* kLayout = R"({"imageLayoutVersion": "1.0.0"})";
    const bool marked = ::faccessat(dir, kMarker, F_OK, 0) == 0;
    return (marked || replace_file(dir, kMarker, kLayout, true)) &&
           replace_file(dir, kIndex, text, true);
}

// Keeps disk space for a second index beside the one that was just written. If the disk does not
// have that much space, that is not an error: the existing reserve stays.
void keep_reserve(int dir, std::size_t size)
{
    const znc::UniqueFd file(
        ::openat(dir, kReserve, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file)
        static_cast<void>(::posix_fallocate(file.get(), 0, static_cast<off_t>(size)));
}

// Writes an index that is shorter than the last one, on a full disk into the space that was
// reserved for it. The old index stays until the new one is complete, as with any other change.
bool write_shorter_index(int dir, const std::string& text)
{
    if (write_index(dir, text))
        return true;
    const int error = errno;
    if ((error == ENOSPC || error == EDQUOT) && ::unlinkat(dir, kReserve, 0) == 0)
        return write_index(dir, text);
    return znc::fail(error, false);
}

// The blobs that the images need. Nullopt if the manifest of one cannot be read. A warning names
// each image that is damaged.
std::optional<std::set<std::string>> needed_blobs(const std::string& area,
                                                  const std::vector<StoredImage>& images)
{
    std::set<std::string> needed;
    std::set<std::string> damaged;
    bool known = true;
    for (const StoredImage& entry : images) {
        const Image image = read_stored(area, entry);
        const bool has_list = znc::is_digest(image.config.digest); // the manifest was read
        known = known && has_list;
        for (const std::string& digest : digests_of(image))
            needed.insert(digest);
        if (!image.problem.empty() && damaged.insert(entry.manifest.digest).second)
            print_warning(fmt::format("{}: it is damaged: {}; {}",
                                      entry.name.empty() ? entry.manifest.digest : entry.name,
                                      image.problem,
                                      has_list ? "its files are kept"
                                               : "no files of removed images are deleted, because "
                                                 "it may need any of them"));
    }
    return known ? std::optional(std::move(needed)) : std::nullopt;
}

[[noreturn]] void throw_full()
{
    throw std::runtime_error(fmt::format("the store cannot hold more than {} names", kImagesMax));
}

} // namespace

std::string image_area()
{
    return private_area("images");
}

std::vector<StoredImage> stored_images()
{
    return read_index(image_area());
}

ImageStage::ImageStage()
{
    const std::string area = image_area();
    // No other process may run sweep_abandoned() until the new stage is locked.
    NamedLock lock;
    take_lock(lock, area);
    sweep_abandoned(area, kStagePrefix);
    dir_ = make_locked_directory(area, kStagePrefix, path_);
}

ImageStage::~ImageStage()
{
    const znc::ErrnoSaver keep;
    zncImageBundleDelete(path_.c_str());
}

void make_layout_of(const StoredImage& image, const std::string& directory)
{
    const znc::UniqueFd dir = open_directory(directory);
    const std::string blobs = image_area() + "/blobs";
    if (::symlinkat(blobs.c_str(), dir.get(), "blobs") != 0 ||
        !write_index(dir.get(), index_text({image})))
        throw_error(directory);
}

StoreChange::StoreChange() : area_(image_area())
{
    take_lock(lock_, area_);
    dir_ = open_directory(area_);
    images_ = read_index(area_);
    count_ = images_.size();
}

void StoreChange::adopt(const std::string& layout, const Image& image)
{
    if (::mkdirat(dir_.get(), "blobs", 0700) != 0 && errno != EEXIST)
        throw_error(area_);
    const std::string blobs = area_ + "/blobs";
    for (const char* algorithm : kAlgorithms)
        if (::mkdir(fmt::format("{}/{}", blobs, algorithm).c_str(), 0700) != 0 && errno != EEXIST)
            throw_error(blobs);
    std::set<std::string> moved; // a manifest may list the same layer twice
    for (const std::string& digest : digests_of(image)) {
        if (!moved.insert(digest).second)
            continue;
        // Replaces a blob of this name, which may be damaged: the new one was verified.
        const std::string from = blob_path(layout, digest);
        const znc::UniqueFd file = open_regular(from);
        if (!file || ::fsync(file.get()) != 0 ||
            ::rename(from.c_str(), blob_path(area_, digest).c_str()) != 0)
            throw_error(digest);
    }
    for (const char* algorithm : kAlgorithms)
        if (::fsync(open_directory(fmt::format("{}/{}", blobs, algorithm)).get()) != 0)
            throw_error(blobs);
    if (::fsync(open_directory(blobs).get()) != 0)
        throw_error(blobs);
}

void StoreChange::put(const StoredImage& image, const std::vector<std::string>& names)
{
    std::set<std::string> given(names.begin(), names.end());
    const auto has_place = [&](const StoredImage& old) {
        return given.empty() ? old.manifest.digest == image.manifest.digest
                             : given.contains(old.name);
    };
    const auto places =
        static_cast<std::size_t>(std::count_if(images_.begin(), images_.end(), has_place));
    const std::size_t wanted = std::max<std::size_t>(given.size(), 1);
    if (images_.size() + wanted - std::min(wanted, places) > kImagesMax)
        throw_full();
    std::set<std::string> with_names; // the manifests of the images that keep a name
    for (StoredImage& old : images_) {
        if (given.contains(old.name))
            old.name.clear();
        if (!old.name.empty())
            with_names.insert(old.manifest.digest);
    }
    const bool is_named = !given.empty() || with_names.contains(image.manifest.digest);
    // An entry that lost its name is only kept if it is the last one of its image.
    std::set<std::string> without_names = {image.manifest.digest};
    std::vector<StoredImage> kept;
    for (StoredImage& old : images_)
        if (!old.name.empty() || (!with_names.contains(old.manifest.digest) &&
                                  without_names.insert(old.manifest.digest).second))
            kept.push_back(std::move(old));
    images_ = std::move(kept);
    StoredImage entry = image;
    entry.name.clear();
    if (!is_named)
        images_.push_back(entry);
    for (StoredImage& old : images_)
        if (names.empty() && old.manifest.digest == image.manifest.digest && old.source.empty())
            old.source = image.source;
    for (const std::string& name : names)
        if (given.erase(name) != 0) { // a name may be given twice
            entry.name = name;
            images_.push_back(entry);
        }
}

void StoreChange::remove(const std::vector<std::size_t>& places)
{
    const std::set<std::size_t> gone(places.begin(), places.end());
    std::vector<StoredImage> kept;
    for (std::size_t i = 0; i < images_.size(); i++)
        if (!gone.contains(i))
            kept.push_back(std::move(images_[i]));
    images_ = std::move(kept);
}

void StoreChange::save()
{
    if (images_.size() > kImagesMax)
        throw_full();
    const std::string text = index_text(images_);
    const bool shorter = images_.size() < count_;
    if (!(shorter ? write_shorter_index(dir_.get(), text) : write_index(dir_.get(), text)))
        throw_error(fmt::format("{}/{}", area_, kIndex));
    count_ = images_.size();
    keep_reserve(dir_.get(), text.size());
}

std::uint64_t StoreChange::remove_unneeded_blobs() const
{
    const auto alone = BundlesInUse::try_exclusive(area_);
    if (!alone)
        return 0;
    const auto needed = needed_blobs(area_, images_);
    if (!needed)
        return 0;
    std::uint64_t bytes = 0;
    for (const char* algorithm : kAlgorithms) {
        std::error_code error;
        const std::string blobs = fmt::format("{}/blobs/{}", area_, algorithm);
        for (fs::directory_iterator it(blobs, error), end; it != end && !error;
             it.increment(error)) {
            const std::string name = it->path().filename();
            const std::string digest = fmt::format("{}:{}", algorithm, name);
            struct stat st = {};
            if (znc::is_digest(digest) && !needed->contains(digest) &&
                ::lstat(it->path().c_str(), &st) == 0 && ::unlink(it->path().c_str()) == 0)
                bytes += static_cast<std::uint64_t>(st.st_size);
        }
    }
    return bytes;
}

} // namespace zncctl
