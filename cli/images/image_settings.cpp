#include "image_settings.hpp"

#include "image_mounts.hpp"

#include <cstdint>
#include <cstdlib>
#include <fmt/format.h>
#include <new>
#include <set>
#include <strings.h>

namespace zncctl {
namespace {

constexpr std::string_view kRtpPrefix = "com.quenmark.zarnel.rtp"; // the same as in the library
constexpr std::int32_t kNormalPriority = 100;
// Limited because the daemon creates the mounts of one container while all other clients wait.
constexpr std::size_t kMountsMax = 100;

// A member that must be of this type if it exists and is not null; else returns null.
const cJSON* typed_member(const cJSON* object, const char* key, int type, const char* what)
{
    const cJSON* item = any_case_member(object, key);
    if (item == nullptr || cJSON_IsNull(item))
        return nullptr;
    if ((item->type & 0xff) != type)
        throw BadConfiguration(fmt::format("\"{}\" is not {}", key, what));
    return item;
}

const cJSON* object_member(const cJSON* object, const char* key)
{
    return typed_member(object, key, cJSON_Object, "an object");
}

std::string text_member(const cJSON* object, const char* key)
{
    const cJSON* item = typed_member(object, key, cJSON_String, "a text");
    return item != nullptr ? item->valuestring : "";
}

void put(cJSON* object, const char* key, cJSON* item)
{
    if (item == nullptr || cJSON_AddItemToObject(object, key, item) == 0)
        throw std::bad_alloc();
}

cJSON* put_object(cJSON* object, const char* key)
{
    put(object, key, cJSON_CreateObject());
    return cJSON_GetObjectItemCaseSensitive(object, key);
}

// Copies a member of any type: the library checks it.
void copy_member(cJSON* to, const cJSON* from, const char* key)
{
    if (const cJSON* item = any_case_member(from, key); item != nullptr)
        put(to, key, cJSON_Duplicate(item, 1));
}

void copy_text(cJSON* to, const cJSON* from, const char* key)
{
    if (const std::string text = text_member(from, key); !text.empty())
        add_text(to, key, text);
}

void copy_texts(cJSON* to, const cJSON* from, const char* key)
{
    const cJSON* list = typed_member(from, key, cJSON_Array, "an array");
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, list) if (!cJSON_IsString(item)) throw BadConfiguration(
        fmt::format("\"{}\" holds something that is not a text", key));
    if (list != nullptr)
        put(to, key, cJSON_Duplicate(list, 1));
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
bool is_urgent(const std::string& setting, const cJSON* value)
{
    if (::strcasecmp(setting.c_str(), "rtpPriority") != 0 || !cJSON_IsString(value))
        return false;
    return static_cast<std::int32_t>(std::strtoul(value->valuestring, nullptr, 0)) <
           kNormalPriority;
}

std::string user_of(const cJSON* section)
{
    const std::string user = text_member(section, "User");
    return user.substr(0, user.find(':'));
}

class ConfigurationFilter {
  public:
    ConfigurationFilter(const cJSON* section, bool allow_mounts)
        : from_(section), allow_mounts_(allow_mounts)
    {
    }

    Json section(const cJSON* configuration)
    {
        Json made(cJSON_CreateObject());
        cJSON* const to = made.get();
        for (const char* key : {"Env", "Entrypoint", "Cmd"})
            copy_texts(to, from_, key);
        // An image without a working directory means "/", but the library creates no container
        // without one.
        const std::string cwd = text_member(from_, "WorkingDir");
        add_text(to, "WorkingDir", cwd.empty() ? "/" : cwd);
        copy_text(to, from_, "User");
        volumes(put_object(to, "Volumes"));
        labels(put_object(to, "Labels"), configuration);
        return made;
    }
    std::vector<std::string> notes() { return std::move(notes_); }

  private:
    void volumes(cJSON* to)
    {
        std::set<std::string> keys;
        std::size_t mounts = 0;
        const cJSON* volume = nullptr;
        cJSON_ArrayForEach(volume, object_member(from_, "Volumes"))
        {
            const ImageMount mount = read_mount(volume->string);
            const auto key = permitted_key(mount, allow_mounts_);
            if (!key)
                notes_.push_back(left_out_note(mount));
            else if (keys.insert(*key).second)
                put(to, key->c_str(), cJSON_CreateObject());
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
    void labels(cJSON* to, const cJSON* configuration)
    {
        std::set<std::string> settings;
        const cJSON* label = nullptr;
        cJSON_ArrayForEach(label, object_member(from_, "Labels"))
        {
            const std::string setting = rtp_setting(label->string);
            if (!setting.empty())
                add_setting(to, setting, label, settings);
            else if (::strcasecmp(label->string, kStickyAnnotation) != 0 &&
                     !std::string_view(label->string).starts_with(kRtpPrefix))
                put(to, label->string, cJSON_Duplicate(label, 1));
        }
        add_annotation(to, "author", text_member(configuration, "author"));
        add_annotation(to, "created", text_member(configuration, "created"));
        add_annotation(to, "stopSignal", text_member(from_, "StopSignal"));
        add_annotation(to, "exposedPorts", ports());
    }

    void add_setting(cJSON* to, const std::string& setting, const cJSON* label,
                     std::set<std::string>& settings)
    {
        std::string lower = setting;
        for (char& c : lower)
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        if (!settings.insert(lower).second)
            throw BadConfiguration(fmt::format("the label \"{}\" is there twice", label->string));
        const std::string name = fmt::format("{}.{}", kRtpPrefix, setting);
        if (!is_urgent(setting, label))
            return put(to, name.c_str(), cJSON_Duplicate(label, 1));
        notes_.push_back(fmt::format("the image's priority {} is more urgent than normal: it is {}",
                                     label->valuestring, kNormalPriority));
        add_text(to, name.c_str(), std::to_string(kNormalPriority));
    }

    static void add_annotation(cJSON* labels, const char* name, const std::string& value)
    {
        const std::string key = fmt::format("org.opencontainers.image.{}", name);
        if (!value.empty() && any_case_member(labels, key.c_str()) == nullptr)
            add_text(labels, key.c_str(), value);
    }

    // All ports in one string: the library would create several members with the same name.
    [[nodiscard]] std::string ports() const
    {
        std::string text;
        const cJSON* port = nullptr;
        cJSON_ArrayForEach(port, object_member(from_, "ExposedPorts")) text +=
            (text.empty() ? "" : ",") + std::string(port->string);
        return text;
    }

    const cJSON* from_;
    bool allow_mounts_;
    std::vector<std::string> notes_;
};

} // namespace

SettledConfiguration settle_configuration(const cJSON* configuration, bool allow_mounts)
{
    if (!cJSON_IsObject(configuration))
        throw BadConfiguration("the configuration is not an object");
    SettledConfiguration settled = {Json(cJSON_CreateObject()), {}};
    cJSON* const to = settled.document.get();
    for (const char* key : {"architecture", "os", "rootfs"})
        copy_member(to, configuration, key);
    const cJSON* section = object_member(configuration, "config");
    if (section == nullptr)
        return settled; // the library rejects a configuration without "config"
    ConfigurationFilter filter(section, allow_mounts);
    put(to, "config", filter.section(configuration).release());
    settled.notes = filter.notes();
    return settled;
}

std::vector<std::string> asked_for(const cJSON* configuration)
{
    std::vector<std::string> asked;
    const cJSON* section = object_member(configuration, "config");
    // Throws the same errors as an unpack would.
    static_cast<void>(settle_configuration(configuration, true));
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, object_member(section, "Volumes"))
    {
        const ImageMount mount = read_mount(item->string);
        const bool volume = mount.kind == ImageMount::Kind::kVolume;
        asked.push_back((volume ? "a volume at " : "a mount of ") + text_of_mount(mount));
    }
    cJSON_ArrayForEach(
        item, object_member(section, "Labels")) if (is_urgent(rtp_setting(item->string), item))
        asked.push_back(fmt::format("the urgent priority {}", item->valuestring));
    cJSON_ArrayForEach(item, object_member(section, "ExposedPorts"))
        asked.push_back(fmt::format("the port {}", item->string));
    const std::string user = user_of(section);
    const bool zero = user.starts_with('0') && std::strtoul(user.c_str(), nullptr, 0) == 0;
    if (user.empty() || user == "root" || zero)
        asked.emplace_back("root's rights");
    return asked;
}

} // namespace zncctl
