#include "mount_options.hpp"

#include "base/owned.hpp"
#include "container_options.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "front/words.hpp"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fmt/format.h>
#include <set>

namespace zncctl {
namespace {

constexpr std::array<std::string_view, 2> kAccess = {"ro", "rw"};
// Options that are passed on for mounts of any kind.
constexpr std::array<std::string_view, 6> kFlags = {"ro",    "rw",     "nosuid",
                                                    "nodev", "noexec", "exec"};
// Options without effect: private propagation is the default, and SELinux labels are not supported.
constexpr std::array<std::string_view, 4> kNoEffect = {"private", "rprivate", "z", "Z"};
constexpr std::array<std::string_view, 5> kTmpfsData = {
    "size=", "mode=", "nr_inodes=", "uid=", "gid="};

bool has_component(std::string_view path, std::string_view wanted)
{
    return is_among(wanted, split(path, '/'));
}

void check_destination(const char* option, const std::string& path)
{
    if (!path.starts_with('/') || path.find_first_not_of("/.") == path.npos ||
        has_component(path, "..") || has_controls(path))
        throw BadOption(fmt::format("{}: '{}' is not an absolute path inside the container", option,
                                    printable(path)));
}

std::string host_path(const char* option, const std::string& source)
{
    if (!source.starts_with('/') && !source.starts_with('.'))
        throw BadOption(fmt::format("{}: '{}' is not a path that begins with '/' or '.': there are "
                                    "no named volumes",
                                    option, printable(source)));
    const znc::MallocPtr<char> path(::realpath(source.c_str(), nullptr));
    if (path == nullptr)
        throw_error(source);
    if (has_controls(path.get()))
        throw BadOption(
            fmt::format("{}: the path '{}' has control characters", option, printable(path.get())));
    return path.get();
}

// Adds an option of a mount, if it has an effect. False if it is unknown.
bool add_flag(std::string_view word, Json& options)
{
    if (is_among(word, kFlags))
        options.push_back(word);
    return is_among(word, kFlags) || is_among(word, kNoEffect);
}

[[noreturn]] void refuse_option(const char* option, std::string_view word)
{
    throw BadOption(fmt::format("{}: unknown or unsupported option '{}'", option, printable(word)));
}

Json bind_mount(std::string source, std::string destination, Json options)
{
    return {{"destination", std::move(destination)},
            {"type", "bind"},
            {"source", std::move(source)},
            {"options", std::move(options)}};
}

Json tmpfs_mount(std::string destination, Json options)
{
    return {{"destination", std::move(destination)},
            {"type", "tmpfs"},
            {"source", "tmpfs"},
            {"options", std::move(options)}};
}

Json read_volume(const std::string& text)
{
    constexpr const char* kOption = "--volume";
    const std::vector<std::string> parts = split(text, ':');
    if (parts.size() < 2 || parts.size() > 3 || parts[0].empty())
        throw BadOption(
            fmt::format("--volume is SOURCE:DESTINATION[:OPTIONS], not '{}'", printable(text)));
    check_destination(kOption, parts[1]);
    Json options = {"rbind"};
    if (parts.size() == 3)
        for (const std::string& word : split(parts[2], ','))
            if (word != "rbind" && word != "bind" && !add_flag(word, options))
                refuse_option(kOption, word);
    return bind_mount(host_path(kOption, parts[0]), parts[1], std::move(options));
}

bool add_tmpfs_option(std::string_view word, Json& options)
{
    const bool data = std::any_of(kTmpfsData.begin(), kTmpfsData.end(), [&](std::string_view name) {
        return word.starts_with(name) && word.size() > name.size() && !has_controls(word);
    });
    if (data)
        options.push_back(word);
    return data || add_flag(word, options);
}

Json read_tmpfs(const std::string& text)
{
    constexpr const char* kOption = "--tmpfs";
    const std::size_t colon = std::min(text.find(':'), text.size());
    const std::string destination = text.substr(0, colon);
    check_destination(kOption, destination);
    Json options = {"nosuid", "nodev"};
    if (colon < text.size())
        for (const std::string& word : split(std::string_view(text).substr(colon + 1), ','))
            if (!add_tmpfs_option(word, options))
                refuse_option(kOption, word);
    return tmpfs_mount(destination, std::move(options));
}

// The members of --mount.
struct MountWords {
    std::string type = "volume"; // podman's default
    std::string source;
    std::string destination;
    Json options = Json::array();
};

bool is_true(std::string_view value)
{
    if (value == "true" || value == "1")
        return true;
    if (value == "false" || value == "0")
        return false;
    throw BadOption(fmt::format("--mount: '{}' is not true or false", printable(value)));
}

void read_mount_word(const std::string& word, MountWords& mount)
{
    constexpr const char* kOption = "--mount";
    const std::size_t equals = std::min(word.find('='), word.size());
    const std::string key = word.substr(0, equals);
    const std::string value = word.substr(std::min(equals + 1, word.size()));
    if (key == "type")
        mount.type = value;
    else if (key == "source" || key == "src")
        mount.source = value;
    else if (key == "target" || key == "destination" || key == "dst")
        mount.destination = value;
    else if (key == "readonly" || key == "ro")
        mount.options.push_back(equals == word.size() || is_true(value) ? "ro" : "rw");
    else if (key == "tmpfs-size" || key == "tmpfs-mode") {
        if (!add_tmpfs_option(key.substr(std::string_view("tmpfs-").size()) + "=" + value,
                              mount.options))
            refuse_option(kOption, word);
    } else if (word != "rw" && (key != "bind-propagation" || !is_among(value, kNoEffect)))
        refuse_option(kOption, word);
}

Json read_mount_option(const std::string& text)
{
    constexpr const char* kOption = "--mount";
    MountWords mount;
    for (const std::string& word : split(text, ','))
        read_mount_word(word, mount);
    const bool bind = mount.type == "bind";
    if (!bind && mount.type != "tmpfs")
        throw BadOption(fmt::format("--mount: the type is \"bind\" or \"tmpfs\", not '{}'",
                                    printable(mount.type)));
    check_destination(kOption, mount.destination);
    for (const Json& word : mount.options)
        if (bind && !is_among(word.get<std::string_view>(), kAccess))
            refuse_option(kOption, word.get<std::string>());
    if (!bind && !mount.source.empty())
        throw BadOption("--mount: a tmpfs has no source");
    for (const char* word : bind ? std::vector{"rbind"} : std::vector{"nosuid", "nodev"})
        mount.options.push_back(word);
    return bind ? bind_mount(host_path(kOption, mount.source), mount.destination, mount.options)
                : tmpfs_mount(mount.destination, mount.options);
}

// The path with one "/" between its components, and none at its end.
std::string plain_path(const std::string& path)
{
    std::string plain;
    for (const std::string& part : split(path, '/'))
        if (!part.empty() && part != ".")
            plain += "/" + part;
    return plain;
}

} // namespace

Json read_mounts(const Arguments& args)
{
    std::vector<Json> mounts;
    for (const std::string& text : args.values("volume"))
        mounts.push_back(read_volume(text));
    for (const std::string& text : args.values("mount"))
        mounts.push_back(read_mount_option(text));
    for (const std::string& text : args.values("tmpfs"))
        mounts.push_back(read_tmpfs(text));
    std::set<std::string> destinations;
    for (Json& mount : mounts) {
        mount["destination"] = plain_path(mount["destination"].get<std::string>());
        if (!destinations.insert(mount["destination"].get<std::string>()).second)
            throw BadOption(fmt::format("two mounts at '{}'", text_of(mount, "destination")));
    }
    const auto depth = [](const Json& mount) {
        const std::string path = text_of(mount, "destination");
        return std::count(path.begin(), path.end(), '/');
    };
    std::stable_sort(mounts.begin(), mounts.end(),
                     [&](const Json& a, const Json& b) { return depth(a) < depth(b); });
    return mounts;
}

} // namespace zncctl
