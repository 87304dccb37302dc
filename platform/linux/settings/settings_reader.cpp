#include "settings_reader.hpp"

#include "settings_sections.hpp"

#include <cerrno>

namespace zn {
namespace {

constexpr std::size_t kDocumentMax = std::size_t{4} * 1024 * 1024;

// Whether the document contains the character U+0000. cJSON ends texts and names there, so that a
// name could be taken for another one.
bool has_nul(std::string_view document)
{
    if (document.find('\0') != std::string_view::npos)
        return true;
    for (std::size_t at = 0; at < document.size(); at++) {
        if (document[at] != '\\')
            continue;
        at++; // skips the escaped character, which may be a backslash
        if (document.substr(at, 5) == "u0000")
            return true;
    }
    return false;
}

// The parsed document. Null after a refusal.
znc::CJsonPtr parse(JsonReader& reader, const Node& at, std::string_view document)
{
    if (document.size() > kDocumentMax) {
        (void)reader.refuse(at, "longer than %zu bytes", kDocumentMax);
        return {};
    }
    if (has_nul(document)) {
        (void)reader.refuse(at, "contains a NUL character");
        return {};
    }
    znc::CJsonPtr tree = znc::parse_json(document);
    if (!tree)
        (void)(errno == ENOMEM ? reader.no_memory(at) : reader.refuse(at, "not JSON"));
    return tree;
}

constexpr Member<Settings> kRoot[] = {
    {"readonly", read_boolean<&Settings::rootReadonly>, Presence::kOptional, Spelling::kAnyCase},
};

bool read_root(JsonReader& reader, const Node& at, Settings& settings)
{
    return read_object(reader, at, kRoot, settings, Others::kIgnored);
}

// Other spellings of "linux" are refused: other runtimes know only this one, and would ignore the
// section with all its restrictions.
bool read_linux_section(JsonReader& reader, const Node& at, Settings& settings)
{
    if (std::string_view(at.name) != "linux")
        return reader.refuse(at, "must be spelled \"linux\"");
    return read_linux(reader, at, settings);
}

// The kernel accepts at most 64 bytes.
bool read_hostname(JsonReader& reader, const Node& at, Settings& settings)
{
    constexpr std::size_t kLongest = 64;
    if (!reader.text(at, settings.hostname))
        return false;
    const std::string_view name = settings.hostname.get();
    for (const char c : name)
        if (c <= ' ' || c > '~')
            return reader.refuse(at, "contains a character that host names do not have");
    return name.size() <= kLongest || reader.refuse(at, "longer than %zu characters", kLongest);
}

constexpr Member<Settings> kDocument[] = {
    {"hostname", read_hostname, Presence::kOptional, Spelling::kAnyCase},
    {"process", read_process, Presence::kOptional, Spelling::kAnyCase},
    {"root", read_root, Presence::kOptional, Spelling::kAnyCase},
    {"linux", read_linux_section, Presence::kOptional, Spelling::kAnyCase},
};

} // namespace

int settings_read(std::string_view document, Settings& settings, SettingsFault& fault)
{
    JsonReader reader(fault);
    Node root;
    const znc::CJsonPtr tree = parse(reader, root, document);
    root.value = tree.get();
    Settings read;
    if (tree && read_object(reader, root, kDocument, read, Others::kIgnored) &&
        check_namespaces(reader, read) && check_sysctl(reader, read))
        settings = std::move(read);
    return reader.error();
}

int settings_read_resources(std::string_view document, Resources& resources, SettingsFault& fault)
{
    JsonReader reader(fault);
    Node root;
    root.name = "resources";
    const znc::CJsonPtr tree = parse(reader, root, document);
    root.value = tree.get();
    Resources read;
    if (tree && read_resources(reader, root, read))
        resources = std::move(read);
    return reader.error();
}

} // namespace zn
