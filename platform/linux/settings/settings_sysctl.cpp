// settings_sysctl.cpp - reads "linux.sysctl". Kernel parameters that no namespace contains belong
// to the host and are refused.
#include "settings_sections.hpp"

#include "system/own_namespace.hpp"

#include <algorithm>

namespace zn {
namespace {

constexpr std::string_view kIpcKeys[] = {
    "kernel.shmall", "kernel.shmmax", "kernel.shmmni", "kernel.shm_rmid_forced",
    "kernel.msgmax", "kernel.msgmnb", "kernel.msgmni", "kernel.sem",
};
// They belong to the UTS namespace, but are set by the member "hostname" (and "domainname" with
// zncrun).
constexpr std::string_view kHostName = "kernel.hostname";
constexpr std::string_view kNameKeys[] = {kHostName, "kernel.domainname"};
constexpr std::string_view kQueuePrefix = "fs.mqueue.";
constexpr std::string_view kNetworkPrefix = "net.";

template <std::size_t kCount>
bool contains(const std::string_view (&keys)[kCount], std::string_view key)
{
    return std::find(std::begin(keys), std::end(keys), key) != std::end(keys);
}

// The namespace that a parameter belongs to; empty if it belongs to the host.
std::optional<NsKind> owner_of(std::string_view key)
{
    if (contains(kIpcKeys, key) || key.substr(0, kQueuePrefix.size()) == kQueuePrefix)
        return NsKind::kIpc;
    if (key.substr(0, kNetworkPrefix.size()) == kNetworkPrefix)
        return NsKind::kNetwork;
    return {};
}

// A key whose first separator is a slash is written with slashes, and a dot is then part of a name,
// such as that of an interface. The form with dots has them the other way round.
void use_dots(char* key)
{
    const std::string_view text(key);
    const std::size_t first = text.find_first_of("./");
    if (first == std::string_view::npos || text[first] == '.')
        return;
    for (; *key != '\0'; key++)
        if (*key == '.' || *key == '/')
            *key = *key == '.' ? '/' : '.';
}

// Whether each part of a key with dots is a file name below /proc/sys. A slash in a part stands for
// a dot: "//" would be the parent directory.
bool has_proper_parts(std::string_view key)
{
    for (;;) {
        const std::size_t len = key.find('.');
        const std::string_view part = key.substr(0, len);
        if (part.empty() || part == "/" || part == "//")
            return false;
        if (len == std::string_view::npos)
            return true;
        key.remove_prefix(len + 1);
    }
}

bool read_key(JsonReader& reader, const Node& at, Text& key)
{
    const std::string_view name = at.name;
    for (const char letter : name)
        if (letter <= ' ' || letter > '~')
            return reader.refuse(at, "not the name of a kernel parameter");
    if (name.size() > kTextMax)
        return reader.refuse(at, "not the name of a kernel parameter");
    key = znc::copy_text(name);
    if (!key)
        return reader.no_memory(at);
    use_dots(key.get());
    return has_proper_parts(key.get()) || reader.refuse(at, "not the name of a kernel parameter");
}

bool is_own(const Settings& settings, NsKind kind)
{
    // Without a list of namespaces, a container has these two.
    if (!settings.namespacesGiven)
        return true;
    const NsChoice& choice = settings.namespaces[static_cast<unsigned>(kind)];
    if (choice.from != NsChoice::From::kPath)
        return choice.from == NsChoice::From::kNew;
    // A path may be that of the namespace of this process.
    return !is_own_namespace(choice.path.get(), kind == NsKind::kNetwork ? "net" : "ipc");
}

} // namespace

bool read_sysctl(JsonReader& reader, const Node& at, Settings& settings)
{
    return read_members(reader, at, [&](const Node& node) {
        Sysctl sysctl;
        if (!read_key(reader, node, sysctl.key) || !reader.required_text(node, sysctl.value))
            return false;
        if (contains(kNameKeys, sysctl.key.get()))
            return reader.unsupported(node, sysctl.key.get() == kHostName
                                                ? "is not supported: use \"hostname\""
                                                : "is not supported");
        if (!owner_of(sysctl.key.get()))
            return reader.refuse(node, "belongs to the host");
        for (const Sysctl& other : settings.sysctl)
            if (std::string_view(other.key.get()) == sysctl.key.get())
                return reader.refuse(node, "occurs twice");
        return settings.sysctl.append(std::move(sysctl)) != nullptr || reader.no_memory(node);
    });
}

bool check_sysctl(JsonReader& reader, const Settings& settings)
{
    const Node root;
    const Node section{nullptr, &root, "linux"};
    const Node list{nullptr, &section, "sysctl"};
    for (const Sysctl& sysctl : settings.sysctl) {
        const std::optional<NsKind> owner = owner_of(sysctl.key.get());
        if (!owner || !is_own(settings, *owner))
            return reader.refuse(Node{nullptr, &list, sysctl.key.get()},
                                 "belongs to the host: the container shares its %s namespace",
                                 owner == NsKind::kNetwork ? "network" : "ipc");
    }
    return true;
}

} // namespace zn
