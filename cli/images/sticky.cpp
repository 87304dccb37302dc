#include "sticky.hpp"

#include "base/failure.hpp"
#include "front/container_id.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "front/json.hpp"
#include "image_settings.hpp"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "zarnel/fs.h"
#include "zncontainer.h"

namespace zncctl {
namespace {

constexpr char kSeparator = ':';
constexpr std::size_t kDirectoriesMax = 64;
constexpr std::size_t kPathMax = 255; // members with longer paths are not extracted
constexpr const char* kOverlayDir = "/overlay/";
constexpr std::uint32_t kStickyBit = 01000;
constexpr const char* kConfig = "config.json";

// Whether the path may go into the annotation: an image must not be able to forge list entries or
// terminal output with it.
bool is_plain(const std::string& path)
{
    return path.starts_with('/') && !path.ends_with('/') && path.size() <= kPathMax &&
           path.find(kSeparator) == path.npos && path.find('\\') == path.npos &&
           printable(path) == path &&
           std::filesystem::path(path).lexically_normal().native() == path;
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

void StickyDirectories::heard(const char* path, std::uint32_t mode, void* self) noexcept
{
    auto& directories = *static_cast<StickyDirectories*>(self);
    try {
        directories.add(path, (mode & kStickyBit) != 0);
    } catch (...) { // exceptions must not pass through the library
        directories.failure_ = std::current_exception();
    }
}

void StickyDirectories::add(const std::string& path, bool sticky)
{
    if (!sticky)
        directories_.erase(path);
    else if (directories_.size() < kDirectoriesMax && is_plain(path))
        directories_.insert(path);
}

std::string StickyDirectories::text() const
{
    if (failure_)
        std::rethrow_exception(failure_);
    std::string text;
    for (const std::string& directory : directories_)
        text += (text.empty() ? "" : std::string(1, kSeparator)) + directory;
    return text;
}

bool annotate_sticky(const std::string& bundle, const std::string& directories)
{
    if (directories.empty())
        return true;
    const znc::UniqueFd dir(::open(bundle.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const auto text = dir ? read_file(kConfig, dir.get()) : std::nullopt;
    if (!text)
        return false;
    std::optional<Json> config = parse_json(*text, nullptr, Annotations::kMayRepeat);
    if (!config || !config->is_object())
        return znc::fail(EBADMSG, false);
    if (member(*config, "annotations") == nullptr)
        append(*config, "annotations", Json::object());
    Json& annotations = config->at("annotations");
    if (!annotations.is_object())
        return znc::fail(EBADMSG, false);
    append(annotations, kStickyAnnotation, directories);
    return replace_file(dir.get(), kConfig, pretty(*config), true);
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
    // Without overlayfs the root is inside the bundle, and `unpack` has set the bits already.
    if (zncOvlFsAvailable() == FALSE)
        return true;
    const auto text = read_file(bundle + "/config.json");
    const auto config = text ? parse_json(*text, nullptr, Annotations::kMayRepeat) : std::nullopt;
    const Json* annotations = config ? any_case_member(*config, "annotations") : nullptr;
    const std::string directories = text_of(annotations, kStickyAnnotation);
    return directories.empty() || set_sticky(kOverlayDir + kept_id(id), directories);
}

} // namespace zncctl
