#include "sticky.hpp"

#include "front/container_id.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "front/json.hpp"
#include "image_settings.hpp"
#include "layer_reader.hpp"

#include <cerrno>
#include <nlohmann/json.hpp>
#include <set>

#include "zarnel/fs.h"
#include "zncontainer.h"

namespace zncctl {
namespace {

constexpr char kSeparator = ':';
constexpr std::size_t kDirectoriesMax = 64;
constexpr std::size_t kPathMax = 255; // members with longer paths are not extracted
constexpr const char* kOverlayDir = "/overlay/";
constexpr std::uint64_t kStickyBit = 01000;

// Nothing that the image's author could make of a list.
bool is_plain(const std::string& path)
{
    return path.starts_with('/') && path.size() <= kPathMax && path.find(kSeparator) == path.npos &&
           printable(path) == path && clean_path(path) == path;
}

// Members of an archive that is damaged further on count as far as they go: unpacking tells.
void collect(const std::string& file, std::set<std::string>& directories)
{
    LayerReader reader(file);
    TarHeader header = {};
    while (reader && reader.read(header) && !header.is_zero() && header.checksum_good()) {
        const std::string name = header.full_name();
        const auto path = clean_path(name);
        if (!path || header.size_value() > UINT32_MAX || !reader.skip(header.size_value()))
            return;
        if (!names_directory(name) || header.size_value() != 0)
            continue;
        if ((header.mode_value() & kStickyBit) == 0)
            directories.erase(*path);
        else if (directories.size() < kDirectoriesMax && is_plain(*path))
            directories.insert(*path);
    }
}

std::set<std::string> listed(const std::string& text)
{
    std::set<std::string> directories;
    std::size_t at = 0;
    while (at < text.size() && directories.size() < kDirectoriesMax) {
        const std::size_t end = std::min(text.find(kSeparator, at), text.size());
        if (const std::string path = text.substr(at, end - at); is_plain(path))
            directories.insert(path);
        at = end + 1;
    }
    return directories;
}

} // namespace

std::string sticky_directories(const std::vector<std::string>& layer_files)
{
    std::set<std::string> directories;
    // An image may name one layer any number of times.
    std::set<std::string_view> read;
    for (const std::string& file : layer_files)
        if (read.insert(file).second)
            collect(file, directories);
    std::string text;
    for (const std::string& directory : directories)
        text += (text.empty() ? "" : std::string(1, kSeparator)) + directory;
    return text;
}

bool set_sticky(const std::string& root, const std::string& directories)
{
    for (const std::string& directory : listed(directories))
        if (znDirMakeSticky(root.c_str(), directory.c_str()) != OK && errno != ENOENT &&
            errno != ENOTDIR && errno != ELOOP && errno != EXDEV)
            return false;
    return true;
}

bool restore_sticky(const std::string& id, const std::string& bundle)
{
    // Without the overlay filesystem the root is the bundle's: `unpack` has seen to it.
    if (zncOvlFsAvailable() == FALSE)
        return true;
    const auto text = read_file(bundle + "/config.json");
    const auto config = text ? parse_json(*text, nullptr, Annotations::kMayRepeat) : std::nullopt;
    const Json* annotations = config ? any_case_member(*config, "annotations") : nullptr;
    const std::string directories = text_of(annotations, kStickyAnnotation);
    return directories.empty() || set_sticky(kOverlayDir + kept_id(id), directories);
}

} // namespace zncctl
