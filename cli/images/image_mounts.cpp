#include "image_mounts.hpp"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <memory>
#include <new>

#include <cjson/cJSON.h>

#include "zncprotocol.h"

namespace zncctl {
namespace {

constexpr std::array<std::string_view, 15> kFlags = {
    "ro",         "rw",          "noexec",     "exec",        "nosuid",
    "nodev",      "nosymfollow", "atime",      "noatime",     "relatime",
    "norelatime", "diratime",    "nodiratime", "strictatime", "defaults"};
// Taken out: they give more than the image needs.
constexpr std::array<std::string_view, 13> kDropped = {
    "dev",    "suid",   "bind",    "rbind",      "private",     "rprivate", "slave",
    "rslave", "shared", "rshared", "unbindable", "runbindable", "symfollow"};
constexpr std::array<std::string_view, 6> kMemoryOptions = {
    "size=", "nr_inodes=", "nr_blocks=", "mode=", "uid=", "gid="};

template <std::size_t N>
bool holds(const std::array<std::string_view, N>& list, std::string_view text)
{
    return std::find(list.begin(), list.end(), text) != list.end();
}

bool is_memory_option(std::string_view option)
{
    return std::any_of(kMemoryOptions.begin(), kMemoryOptions.end(),
                       [option](std::string_view start) { return option.starts_with(start); });
}

ImageMount::Kind kind_of(const ImageMount& mount)
{
    using Kind = ImageMount::Kind;
    if (mount.destination.empty())
        return Kind::kVolume;
    const auto has = [&mount](const char* option) {
        return std::find(mount.options.begin(), mount.options.end(), option) != mount.options.end();
    };
    const bool no_type = mount.type.empty() || mount.type == "unknown";
    if (has("bind") || has("rbind") || mount.type == "bind" || no_type)
        return Kind::kHost;
    return mount.type == "tmpfs" ? Kind::kMemory : Kind::kKernel;
}

// Nothing when there is one among them that an image does not get.
std::optional<std::string> permitted_options(const ImageMount& mount)
{
    std::string text;
    for (const std::string& option : mount.options) {
        if (holds(kDropped, option) || option == "nosuid" || option == "nodev")
            continue;
        const bool memory = mount.kind == ImageMount::Kind::kMemory && is_memory_option(option);
        if (!memory && !holds(kFlags, option))
            return std::nullopt;
        text += option + ",";
    }
    return text + "nosuid,nodev";
}

bool same(const ImageMount& a, const ImageMount& b)
{
    return a.kind == b.kind && a.source == b.source && a.destination == b.destination;
}

} // namespace

ImageMount read_mount(const std::string& key)
{
    const std::unique_ptr<cJSON, decltype(&cJSON_Delete)> object(cJSON_CreateObject(),
                                                                 &cJSON_Delete);
    if (zncImageGetMountInfo(object.get(), key.c_str()) != OK)
        throw std::bad_alloc();
    const auto text = [&object](const char* name) {
        return cJSON_GetStringValue(cJSON_GetObjectItem(object.get(), name));
    };
    ImageMount mount;
    mount.source = text("source");
    mount.destination = text("destination");
    mount.type = text("type");
    const cJSON* option = nullptr;
    cJSON_ArrayForEach(option, cJSON_GetObjectItem(object.get(), "options"))
        mount.options.emplace_back(cJSON_GetStringValue(option));
    mount.kind = kind_of(mount);
    return mount;
}

std::string text_of_mount(const ImageMount& mount)
{
    using Kind = ImageMount::Kind;
    if (mount.kind == Kind::kVolume)
        return mount.source;
    if (mount.kind == Kind::kHost)
        return fmt::format("the host's {} at {}", mount.source, mount.destination);
    return fmt::format("{} at {}", mount.type, mount.destination);
}

std::optional<std::string> permitted_key(const ImageMount& mount, bool allow_host)
{
    using Kind = ImageMount::Kind;
    if (mount.kind == Kind::kVolume)
        return mount.source;
    const bool host = mount.kind == Kind::kHost;
    if (mount.kind == Kind::kKernel || (host && (!allow_host || !mount.source.starts_with('/'))))
        return std::nullopt;
    const auto options = permitted_options(mount);
    if (!options)
        return std::nullopt;
    std::string key = fmt::format("{}:{}:{}:{}", mount.source, mount.destination, *options,
                                  host ? "bind" : "tmpfs");
    // The library reads 255 bytes of a key.
    const ImageMount read = read_mount(key);
    const auto has = [&read](const char* option) {
        return std::find(read.options.begin(), read.options.end(), option) != read.options.end();
    };
    if (!same(read, mount) || !has("nosuid") || !has("nodev"))
        return std::nullopt;
    return key;
}

} // namespace zncctl
