#include "image_config.hpp"

#include "front/layout.hpp"
#include "front/words.hpp"
#include "import/source/documents.hpp"

#include <algorithm>
#include <array>
#include <ctime>
#include <fmt/format.h>

namespace zncimport {
namespace {

using zncctl::Json;
using zncctl::member;
using zncctl::text_of;

constexpr const char* kSourceDigest = "zncontainer.import.source.digest";
constexpr const char* kNobody = "65534:65534";
constexpr const char* kConfigType = "application/vnd.oci.image.config.v1+json";
constexpr const char* kLayerType = "application/vnd.oci.image.layer.v1.tar+gzip";

[[noreturn]] void refuse(const std::string& what)
{
    throw Failure("the image's configuration", what);
}

// JSON parsers differ in whether names are case-sensitive. Refuse other spellings, so that what is
// checked here is what other programs use.
void check_spelling(const Json& object, std::initializer_list<const char*> keys)
{
    for (const char* key : keys)
        if (zncctl::any_case_member(object, key) != member(object, key))
            refuse(fmt::format("\"{}\" is present in different case", key));
}

std::string first_of(std::initializer_list<std::string> texts)
{
    for (const std::string& text : texts)
        if (!text.empty())
            return text;
    return "";
}

void settle_platform(Json& config, const SourceImage& image, const ConfigOptions& options)
{
    const std::string arch = text_of(config, "architecture");
    const std::string os = text_of(config, "os");
    const std::string new_arch =
        first_of({options.set_arch, arch, image.arch, zncctl::kDefaultArch});
    config["architecture"] = new_arch;
    config["os"] = first_of({options.set_os, os, image.os, zncctl::kDefaultOs});
    if (!options.set_arch.empty() && new_arch != first_of({arch, image.arch}))
        config.erase("variant");
}

std::string rfc3339(std::int64_t seconds)
{
    const std::time_t time = seconds;
    std::tm parts{};
    std::array<char, 64> text{};
    if (::gmtime_r(&time, &parts) == nullptr || parts.tm_year > 9999 - 1900 ||
        std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts) == 0)
        throw Failure("SOURCE_DATE_EPOCH", "is not a time that can be represented");
    return text.data();
}

void check_strings(const Json& section, const char* key)
{
    const Json* array = member(section, key);
    if (array == nullptr || array->is_null())
        return;
    if (!array->is_array())
        refuse(fmt::format("\"{}\" is not an array", key));
    for (const Json& item : *array)
        if (!item.is_string())
            refuse(fmt::format("\"{}\" contains an element that is not a string", key));
}

// Returns the string value of a member, or "" if it is missing or null.
std::string optional_text(const Json& section, const char* key)
{
    const Json* item = member(section, key);
    if (item != nullptr && !item->is_null() && !item->is_string())
        refuse(fmt::format("\"{}\" is not a string", key));
    return text_of(section, key);
}

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> parts;
    for (;;) {
        const std::size_t end = text.find(separator);
        parts.emplace_back(text.substr(0, end));
        if (end == text.npos)
            return parts;
        text.remove_prefix(end + 1);
    }
}

// Finds a file of the image, following links inside it; returns null if there is none. The
// components of a link's target replace the link; Tree resolves any ".." among them.
const Node* find_file(Tree& tree, const std::string& path)
try {
    constexpr int kMaxLinks = 40;
    std::vector<std::string> way = split(path, '/');
    for (int links = 0; links < kMaxLinks; links++) {
        const Node* node = tree.find(way);
        if (node == nullptr || node->kind != Kind::kSymlink)
            return node != nullptr && node->kind == Kind::kFile ? node : nullptr;
        way.resize(node->target.starts_with('/') ? 0 : way.size() - 1);
        for (const std::string& name : split(node->target, '/'))
            if (!name.empty() && name != ".")
                way.push_back(name);
    }
    return nullptr;
} catch (const Failure&) { // the path cannot be resolved
    return nullptr;
}

std::optional<std::uint32_t> to_id(std::string_view text)
{
    const auto number = zncctl::to_number<std::uint32_t>(text);
    return number != UINT32_MAX ? number : std::nullopt; // UINT32_MAX means "no id"
}

// The fields of a line of etc/passwd or etc/group: name, password (ignored), ids.
using Record = std::vector<std::string>;

class Records {
  public:
    // A missing or implausibly large file yields no records.
    Records(Tree& tree, const Spool& spool, const char* path)
    {
        constexpr std::uint64_t kMost = std::uint64_t{10} << 20U;
        const Node* node = find_file(tree, path);
        if (node != nullptr && node->data.size != 0 && node->data.size <= kMost)
            text_ = read_all(*spool.read(node->data), path, kMost);
    }

    // Returns the first record with this text in the field.
    [[nodiscard]] std::optional<Record> find(std::size_t field, const std::string& text) const
    {
        return find_if([&](const Record& record) { return record[field] == text; });
    }
    // Returns the first record with this id.
    [[nodiscard]] std::optional<Record> find(std::uint32_t id) const
    {
        return find_if([&](const Record& record) { return to_id(record[2]) == id; });
    }

  private:
    template <class Match> [[nodiscard]] std::optional<Record> find_if(Match match) const
    {
        std::string_view left = text_;
        while (!left.empty()) {
            const std::size_t end = std::min(left.find('\n'), left.size());
            Record record = split(left.substr(0, end), ':');
            left.remove_prefix(std::min(end + 1, left.size()));
            if (record.size() > 3 && to_id(record[2]) && match(record))
                return record;
        }
        return std::nullopt;
    }

    std::string text_;
};

struct Ids {
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
};

// Resolves "User" to numeric ids. If a name is not defined by the image, it is stored in `unknown`.
std::optional<Ids> resolve_user(const std::string& text, Tree& tree, const Spool& spool,
                                std::string& unknown)
{
    const Records users(tree, spool, "etc/passwd");
    const std::size_t colon = std::min(text.find(':'), text.size());
    const std::string user = text.substr(0, colon);
    const std::string group = text.substr(std::min(colon + 1, text.size()));
    std::optional<std::uint32_t> uid = user.empty() ? 0 : to_id(user);
    const std::optional<Record> record = uid ? users.find(*uid) : users.find(0, user);
    if (!uid && record)
        uid = to_id((*record)[2]);
    if (!uid) {
        unknown = user;
        return std::nullopt;
    }
    const std::uint32_t own_group = record ? to_id((*record)[3]).value_or(0) : 0;
    if (group.empty())
        return Ids{*uid, own_group};
    std::optional<std::uint32_t> gid = to_id(group);
    if (!gid)
        if (const auto found = Records(tree, spool, "etc/group").find(0, group))
            gid = to_id((*found)[2]);
    if (!gid)
        unknown = group;
    return Ids{*uid, gid.value_or(own_group)};
}

// The library reads a name as 0 and "010" as 8, and does not look up the user's primary group:
// write both ids in decimal. A user that the image does not define becomes nobody rather than root.
void settle_user(Json& section, Tree& tree, const Spool& spool, Report& report)
{
    const std::string text = optional_text(section, "User");
    if (text.empty())
        return;
    std::string unknown;
    const std::optional<Ids> ids = resolve_user(text, tree, spool, unknown);
    if (!ids) {
        report.add(Change::kUser, "", fmt::format("{} is nobody, {}", unknown, kNobody));
        section["User"] = kNobody;
        return;
    }
    if (!unknown.empty())
        report.add(Change::kUser, "", unknown);
    const bool alone = text.find(':') == text.npos && ids->gid == 0;
    const std::string numbers =
        alone ? std::to_string(ids->uid) : fmt::format("{}:{}", ids->uid, ids->gid);
    if (numbers == text)
        return;
    section["User"] = numbers;
    if (unknown.empty())
        report.add(Change::kUserNumbers, "", fmt::format("{} is {}", text, numbers));
}

// Creates the directory of a volume, unless its path is occupied by something else.
void make_directory(Tree& tree, const std::string& key, std::size_t layer)
try {
    std::vector<std::string> way = tree.split(key, Limits{}.depth);
    std::vector<std::string> walked;
    const Node* above = &tree.root();
    for (const std::string& name : way) {
        walked.push_back(name);
        if (tree.find(walked) == nullptr)
            break;
        walked.emplace_back(".");
        above = tree.existing_parent_of(walked);
        if (above == nullptr)
            return; // a file or a dangling link
        walked.pop_back();
    }
    const std::int64_t mtime = above->mtime;
    way.emplace_back("."); // so that the directory itself is created, not only its parents
    tree.parent_of(way, mtime, layer);
} catch (const Failure&) { // the path is invalid or too deep
}

// The library would bind-mount a host directory for each key of "Volumes".
void settle_volumes(Json& section, Tree& tree, std::size_t layer, Report& report)
{
    const Json* volumes = member(section, "Volumes");
    if (volumes != nullptr && !volumes->is_null() && !volumes->is_object())
        refuse("\"Volumes\" is not an object");
    for (const auto& volume : zncctl::children(volumes).items()) {
        const std::string& key = volume.key();
        report.add(Change::kVolume, key.starts_with('/') ? key.substr(1) : key);
        if (key.starts_with('/') && key.find(':') == key.npos)
            make_directory(tree, key, layer);
    }
    section.erase("Volumes");
}

Json& execution_section(Json& config)
{
    Json& section = config["config"];
    if (section.is_null())
        section = Json::object();
    else if (!section.is_object())
        refuse("\"config\" is not an object");
    return section;
}

// The configuration for a source without one.
Json default_config()
{
    return {{"config", {{"Cmd", Json::array({"/bin/sh"})}}}};
}

Json copy_of_config(const SourceImage& image)
{
    const Json& given = image.config;
    if (given.is_null())
        return default_config();
    if (!given.is_object())
        refuse("it is not an object");
    check_spelling(given, {"architecture", "os", "variant", "config", "rootfs", "history",
                           "created", "author"});
    return given;
}

// Copies the annotations of the source without the reference name, which belongs into the index.
Json new_annotations(const SourceImage& image)
{
    Json annotations = Json::object();
    for (const auto& item : zncctl::children(&image.annotations).items())
        if (item.value().is_string() && item.key() != kRefName)
            zncctl::append(annotations, item.key(), item.value());
    if (!image.manifest_digest.empty())
        annotations[kSourceDigest] = image.manifest_digest;
    return annotations;
}

std::string document(const Json& object)
{
    std::string text = zncctl::compact(object);
    if (text.size() > Limits{}.json)
        refuse("it is too long");
    return text;
}

} // namespace

Json settle_config(const SourceImage& image, Tree& tree, const Spool& spool,
                   const ConfigOptions& options, Report& report)
{
    Json config = copy_of_config(image);
    settle_platform(config, image, options);
    if (options.source_date_epoch)
        config["created"] = rfc3339(*options.source_date_epoch);
    Json& section = execution_section(config);
    check_spelling(section, {"User", "Env", "Entrypoint", "Cmd", "Volumes", "WorkingDir", "Labels",
                             "ExposedPorts", "StopSignal"});
    for (const char* key : {"Env", "Entrypoint", "Cmd"})
        check_strings(section, key);
    if (optional_text(section, "WorkingDir").empty())
        section["WorkingDir"] = "/";
    if (!options.keep_user)
        settle_user(section, tree, spool, report);
    settle_volumes(section, tree, std::max<std::size_t>(image.layers.size(), 1) - 1, report);
    return config;
}

std::string finish_config(Json config, const std::vector<NewLayer>& layers)
{
    const std::string created = text_of(config, "created");
    Json ids = Json::array();
    Json history = Json::array();
    for (const NewLayer& layer : layers) {
        ids.push_back(layer.diff_id);
        Json step = Json::object();
        if (!created.empty())
            step["created"] = created;
        step["created_by"] = "zncctl import";
        history.push_back(std::move(step));
    }
    config["rootfs"] = {{"type", "layers"}, {"diff_ids", std::move(ids)}};
    config["history"] = std::move(history);
    return document(config);
}

std::string new_manifest(const SourceImage& image, const std::string& config,
                         const std::vector<NewLayer>& layers)
{
    Json list = Json::array();
    for (const NewLayer& layer : layers)
        list.push_back(descriptor(kLayerType, layer.digest, layer.size));
    Json manifest = {{"schemaVersion", 2},
                     {"mediaType", kManifestType},
                     {"config", descriptor(kConfigType, digest_of(config), config.size())},
                     {"layers", std::move(list)}};
    Json annotations = new_annotations(image);
    if (!annotations.empty())
        manifest["annotations"] = std::move(annotations);
    return document(manifest);
}

} // namespace zncimport
