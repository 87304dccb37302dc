// settings_namespaces.cpp - reads "linux.namespaces" and the mappings of user namespaces.
#include "settings_sections.hpp"

namespace zn {
namespace {

constexpr std::size_t kMappingsMax = 340;    // UID_GID_MAP_MAX_EXTENTS of the kernel
constexpr std::int64_t kIdsMax = UINT32_MAX; // the last number is no id
constexpr const char* kMappingKinds[] = {"uidMappings", "gidMappings"};

constexpr Word<NsKind> kKinds[] = {
    {"mount", NsKind::kMount}, {"pid", NsKind::kPid},       {"ipc", NsKind::kIpc},
    {"uts", NsKind::kUts},     {"cgroup", NsKind::kCgroup}, {"network", NsKind::kNetwork},
    {"user", NsKind::kUser},   {"time", NsKind::kTime},
};
static_assert(std::size(kKinds) == kNsKinds);

struct Entry {
    NsKind kind = NsKind::kMount;
    Text path;
};

bool read_kind(JsonReader& reader, const Node& at, Entry& entry)
{
    return read_word(reader, at, kKinds, "unknown type", entry.kind);
}

bool read_ns_path(JsonReader& reader, const Node& at, Entry& entry)
{
    return (cJSON_IsString(at.value) != 0 && is_empty(at.value)) ||
           reader.absolute_path(at, entry.path);
}

constexpr Member<Entry> kEntry[] = {
    {"type", read_kind, Presence::kRequired},
    {"path", read_ns_path},
};

constexpr Member<IdMapping> kMapping[] = {
    {"containerID", read_integer<&IdMapping::inside, 0, kIdMax>, Presence::kRequired},
    {"hostID", read_integer<&IdMapping::outside, 0, kIdMax>, Presence::kRequired},
    {"size", read_integer<&IdMapping::count, 1, kIdsMax>, Presence::kRequired},
};

bool overlap(std::uint32_t one, std::uint32_t oneCount, std::uint32_t other,
             std::uint32_t otherCount)
{
    return std::uint64_t{one} < std::uint64_t{other} + otherCount &&
           std::uint64_t{other} < std::uint64_t{one} + oneCount;
}

bool check_mapping(JsonReader& reader, const Node& at, const IdMapping& mapping,
                   const List<IdMapping>& others)
{
    if (std::uint64_t{mapping.inside} + mapping.count > UINT32_MAX ||
        std::uint64_t{mapping.outside} + mapping.count > UINT32_MAX)
        return reader.refuse(Node{nullptr, &at, "size"}, "leads beyond the last id");
    for (const IdMapping& other : others) {
        if (overlap(mapping.inside, mapping.count, other.inside, other.count))
            return reader.refuse(Node{nullptr, &at, "containerID"}, "overlaps another mapping");
        if (overlap(mapping.outside, mapping.count, other.outside, other.count))
            return reader.refuse(Node{nullptr, &at, "hostID"}, "overlaps another mapping");
    }
    return true;
}

} // namespace

bool read_namespaces(JsonReader& reader, const Node& at, Settings& settings)
{
    settings.namespacesGiven = true;
    return read_elements(reader, at, [&](const Node& node) {
        Entry entry;
        if (!read_object(reader, node, kEntry, entry))
            return false;
        NsChoice& choice = settings.namespaces[static_cast<unsigned>(entry.kind)];
        if (choice.from != NsChoice::From::kHost)
            return reader.refuse_text(Node{member_of(node, "type"), &node, "type"},
                                      "second namespace of type");
        choice.from = entry.path ? NsChoice::From::kPath : NsChoice::From::kNew;
        choice.path = std::move(entry.path);
        return true;
    });
}

bool read_id_mapping(JsonReader& reader, const Node& at, List<IdMapping>& mappings)
{
    return read_elements(reader, at, [&](const Node& node) {
        IdMapping mapping;
        if (node.index >= kMappingsMax)
            return reader.refuse(at, "has more than %zu elements", kMappingsMax);
        if (!read_object(reader, node, kMapping, mapping) ||
            !check_mapping(reader, node, mapping, mappings))
            return false;
        return mappings.append(mapping) != nullptr || reader.no_memory(node);
    });
}

bool check_namespaces(JsonReader& reader, const Settings& settings)
{
    const Node root;
    const Node section{nullptr, &root, "linux"};
    const NsChoice::From user = settings.namespaces[static_cast<unsigned>(NsKind::kUser)].from;
    for (const char* const kind : kMappingKinds) {
        const List<IdMapping>& mappings =
            kind == kMappingKinds[0] ? settings.uidMappings : settings.gidMappings;
        const Node node{nullptr, &section, kind};
        if (user == NsChoice::From::kHost && !mappings.empty())
            return reader.refuse(node, "needs a user namespace in \"linux.namespaces\"");
        if (user == NsChoice::From::kNew && mappings.empty())
            return reader.refuse(node, "is missing: a new user namespace needs it");
    }
    const bool hasTime =
        settings.namespaces[static_cast<unsigned>(NsKind::kTime)].from == NsChoice::From::kNew;
    return (!settings.monotonic.given && !settings.boottime.given) || hasTime ||
           reader.refuse(Node{nullptr, &section, "timeOffsets"},
                         "needs a new time namespace in \"linux.namespaces\"");
}

} // namespace zn
