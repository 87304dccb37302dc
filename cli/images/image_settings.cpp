#include "image_settings.hpp"

#include "image_mounts.hpp"

#include <cstdint>
#include <cstdlib>
#include <fmt/format.h>
#include <set>
#include <strings.h>

namespace zncctl {
namespace {

constexpr std::string_view kRtpPrefix = "com.quenmark.zarnel.rtp"; // the same as in the library
constexpr std::int32_t kNormalPriority = 100;
// Limited because the daemon creates the mounts of one container while all other clients wait.
constexpr std::size_t kMountsMax = 100;

// A member that must be of this type if it exists and is not null; else returns null.
const Json* typed_member(const Json& object, const char* key, Json::value_t type, const char* what)
{
    const Json* item = any_case_member(object, key);
    if (item == nullptr || item->is_null())
        return nullptr;
    if (item->type() != type)
        throw BadConfiguration(fmt::format("\"{}\" is not {}", key, what));
    return item;
}

// The object member; an empty object if it is missing.
const Json& object_member(const Json& object, const char* key)
{
    return children(typed_member(object, key, Json::value_t::object, "an object"));
}

std::string text_member(const Json& object, const char* key)
{
    const std::string* found = text(typed_member(object, key, Json::value_t::string, "a text"));
    return found != nullptr ? *found : "";
}

// Copies a member of any type: the library checks it.
void copy_member(Json& to, const Json& from, const char* key)
{
    if (const Json* item = any_case_member(from, key); item != nullptr)
        append(to, key, *item);
}

void copy_text(Json& to, const Json& from, const char* key)
{
    if (const std::string text = text_member(from, key); !text.empty())
        append(to, key, text);
}

void copy_texts(Json& to, const Json& from, const char* key)
{
    const Json* list = typed_member(from, key, Json::value_t::array, "an array");
    for (const Json& item : children(list))
        if (!item.is_string())
            throw BadConfiguration(
                fmt::format("\"{}\" contains an element that is not a string", key));
    if (list != nullptr)
        append(to, key, *list);
}

// The name of the real-time setting that a label contains; "" for any other label.
std::string rtp_setting(std::string_view label)
{
    if (!label.starts_with(kRtpPrefix))
        return "";
    return std::string(label.substr(std::min(label.size(), kRtpPrefix.size() + 1)));
}

// The library accepts numbers in any base (strtoul with base 0) and converts them to int32_t: this
// does the same.
bool is_urgent(const std::string& setting, const Json& value)
{
    const std::string* number = text(&value);
    if (::strcasecmp(setting.c_str(), "rtpPriority") != 0 || number == nullptr)
        return false;
    return static_cast<std::int32_t>(std::strtoul(number->c_str(), nullptr, 0)) < kNormalPriority;
}

std::string user_of(const Json& section)
{
    const std::string user = text_member(section, "User");
    return user.substr(0, user.find(':'));
}

class ConfigurationFilter {
  public:
    ConfigurationFilter(const Json& section, bool allow_mounts)
        : from_(section), allow_mounts_(allow_mounts)
    {
    }

    Json section(const Json& configuration)
    {
        Json to = Json::object();
        for (const char* key : {"Env", "Entrypoint", "Cmd"})
            copy_texts(to, from_, key);
        // If an image has no working directory, "/" is meant; but the library refuses to create a
        // container without one.
        const std::string cwd = text_member(from_, "WorkingDir");
        append(to, "WorkingDir", cwd.empty() ? "/" : cwd);
        copy_text(to, from_, "User");
        volumes(append(to, "Volumes", Json::object()));
        labels(append(to, "Labels", Json::object()), configuration);
        return to;
    }
    std::vector<std::string> notes() { return std::move(notes_); }

  private:
    void volumes(Json& to)
    {
        std::set<std::string> keys;
        std::size_t mounts = 0;
        for (const auto& volume : object_member(from_, "Volumes").items()) {
            const ImageMount mount = read_mount(volume.key());
            const auto key = permitted_key(mount, allow_mounts_);
            if (!key)
                notes_.push_back(left_out_note(mount));
            else if (keys.insert(*key).second)
                append(to, *key, Json::object());
            if (key && mount.kind != ImageMount::Kind::kVolume && ++mounts > kMountsMax)
                throw BadConfiguration(fmt::format("it has more than {} mounts", kMountsMax));
        }
    }

    [[nodiscard]] std::string left_out_note(const ImageMount& mount) const
    {
        const bool can_be_allowed = mount.kind == ImageMount::Kind::kHost && !allow_mounts_;
        return fmt::format("the image's mount of {} is left out{}", text_of_mount(mount),
                           can_be_allowed ? "; --allow-image-mounts keeps it" : "");
    }

    // The library turns labels into annotations and adds annotations for other members of the
    // configuration. Here these are added as labels, and a label that has the name of such an
    // annotation takes precedence.
    void labels(Json& to, const Json& configuration)
    {
        std::set<std::string> settings;
        for (const auto& label : object_member(from_, "Labels").items()) {
            const std::string setting = rtp_setting(label.key());
            if (!setting.empty())
                add_setting(to, setting, label.key(), label.value(), settings);
            else if (::strcasecmp(label.key().c_str(), kStickyAnnotation) != 0 &&
                     !label.key().starts_with(kRtpPrefix))
                append(to, label.key(), label.value());
        }
        add_annotation(to, "author", text_member(configuration, "author"));
        add_annotation(to, "created", text_member(configuration, "created"));
        add_annotation(to, "stopSignal", text_member(from_, "StopSignal"));
        add_annotation(to, "exposedPorts", ports());
    }

    void add_setting(Json& to, const std::string& setting, const std::string& label,
                     const Json& value, std::set<std::string>& settings)
    {
        std::string lower = setting;
        for (char& c : lower)
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        if (!settings.insert(lower).second)
            throw BadConfiguration(fmt::format("duplicate label \"{}\"", label));
        const std::string name = fmt::format("{}.{}", kRtpPrefix, setting);
        const bool urgent = is_urgent(setting, value);
        append(to, name, urgent ? Json(std::to_string(kNormalPriority)) : value);
        if (!urgent)
            return;
        notes_.push_back(fmt::format("the image's priority {} is more urgent than normal: it is {}",
                                     *text(&value), kNormalPriority));
    }

    static void add_annotation(Json& labels, const char* name, const std::string& value)
    {
        const std::string key = fmt::format("org.opencontainers.image.{}", name);
        if (!value.empty() && any_case_member(labels, key) == nullptr)
            append(labels, key, value);
    }

    // All ports in one string: the library would create several members with the same name.
    [[nodiscard]] std::string ports() const
    {
        std::string text;
        for (const auto& port : object_member(from_, "ExposedPorts").items())
            text += (text.empty() ? "" : ",") + port.key();
        return text;
    }

    const Json& from_;
    bool allow_mounts_;
    std::vector<std::string> notes_;
};

} // namespace

SettledConfiguration filter_configuration(const Json& configuration, bool allow_mounts)
{
    if (!configuration.is_object())
        throw BadConfiguration("the configuration is not an object");
    SettledConfiguration settled = {Json::object(), {}};
    Json& to = settled.document;
    for (const char* key : {"architecture", "os", "rootfs"})
        copy_member(to, configuration, key);
    const Json* section = typed_member(configuration, "config", Json::value_t::object, "an object");
    if (section == nullptr)
        return settled; // the library rejects a configuration without "config"
    ConfigurationFilter filter(*section, allow_mounts);
    append(to, "config", filter.section(configuration));
    settled.notes = filter.notes();
    return settled;
}

std::vector<std::string> image_requests(const Json& configuration)
{
    std::vector<std::string> asked;
    const Json& section = object_member(configuration, "config");
    // Throws the same errors as an unpack would.
    static_cast<void>(filter_configuration(configuration, true));
    for (const auto& asked_mount : object_member(section, "Volumes").items()) {
        const ImageMount mount = read_mount(asked_mount.key());
        const bool volume = mount.kind == ImageMount::Kind::kVolume;
        asked.push_back((volume ? "a volume at " : "a mount of ") + text_of_mount(mount));
    }
    for (const auto& label : object_member(section, "Labels").items())
        if (is_urgent(rtp_setting(label.key()), label.value()))
            asked.push_back(fmt::format("the urgent priority {}", *text(&label.value())));
    for (const auto& port : object_member(section, "ExposedPorts").items())
        asked.push_back(fmt::format("the port {}", port.key()));
    const std::string user = user_of(section);
    const bool zero = user.starts_with('0') && std::strtoul(user.c_str(), nullptr, 0) == 0;
    if (user.empty() || user == "root" || zero)
        asked.emplace_back("root's rights");
    return asked;
}

} // namespace zncctl
