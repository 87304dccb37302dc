#include "container_bundle.hpp"

#include "cli/containers/config_check.hpp"
#include "cli/containers/configure.hpp"
#include "cli/containers/container_notes.hpp"
#include "cli/containers/network_files.hpp"
#include "front/container_id.hpp"
#include "front/files.hpp"

#include <array>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace zncctl {
namespace {

constexpr const char* kConfig = "config.json";
constexpr const char* kSource = ".source"; // contains the path of the bundle it was made from
constexpr const char* kLayers = ".zn-layers";
constexpr const char* kHosts = "hosts";
constexpr const char* kHostName = "hostname";
constexpr const char* kResolver = "resolv.conf";
constexpr const char* kHostResolver = "/etc/resolv.conf";
constexpr std::array kNamespaces = {"pid", "network", "mount", "ipc", "uts", "cgroup"};

// The member; it is added or replaced by `value` if it is missing or has another type.
Json& member_of_type(Json& object, const char* key, Json value)
{
    for (auto& item : object.items())
        if (item.key() == key) {
            if (item.value().type() != value.type())
                item.value() = std::move(value);
            return item.value();
        }
    return append(object, key, std::move(value));
}

// A configuration without a list of namespaces means all that containers have by default.
void set_namespaces(Json& config, bool host)
{
    const Json* linux_part = member(config, "linux");
    const Json* listed = linux_part != nullptr ? member(*linux_part, "namespaces") : nullptr;
    if (listed == nullptr && !host)
        return;
    Json list = Json::array();
    if (listed == nullptr)
        for (const char* type : kNamespaces)
            list.push_back({{"type", type}});
    Json result = Json::array();
    for (const Json& entry : listed != nullptr ? children(listed) : list)
        if (text_of(entry, "type") != "network")
            result.push_back(entry);
    if (!host)
        result.push_back({{"type", "network"}});
    member_of_type(member_of_type(config, "linux", Json::object()), "namespaces", Json::array()) =
        std::move(result);
}

Json file_mount(const std::string& files, const char* name)
{
    return {{"destination", std::string("/etc/") + name},
            {"type", "bind"},
            {"source", files + "/" + name},
            {"options", {"bind", "nosuid", "nodev", "noexec"}}};
}

void write_new(int dir, const char* name, std::string_view text)
{
    // The program in the container may have any user.
    if (!replace_file(dir, name, text) || ::fchmodat(dir, name, 0644, 0) != 0)
        throw_error(name);
}

Json read_config(const std::string& bundle)
{
    return read_object(bundle + "/" + kConfig, Annotations::kMayRepeat);
}

// Makes root.path absolute, since the configuration is copied to another directory.
void make_root_absolute(Json& config, const std::string& bundle)
{
    for (auto& item : config.items()) {
        const std::string path = item.key() == "root" ? text_of(item.value(), "path") : "";
        if (!path.empty() && !path.starts_with('/'))
            item.value()["path"] = fmt::format("{}/{}", bundle, path);
    }
}

void copy_layers(int dir, const std::string& source)
{
    const auto layers = read_file(source + "/" + kLayers);
    if (!layers && errno != ENOENT)
        throw_error(source + "/" + kLayers);
    if (layers && !replace_file(dir, kLayers, *layers))
        throw_error(kLayers);
}

void write_files(int dir, const std::string& name, const Network& network)
{
    write_new(dir, kHosts, hosts_text(name));
    write_new(dir, kHostName, name + "\n");
    if (network.kind == NetworkKind::kNone)
        return;
    const std::string host = read_file(kHostResolver).value_or("");
    write_new(dir, kResolver, network.kind == NetworkKind::kPasta ? resolver_text(host) : host);
}

void set_host_name(Json& config, const NewContainer& container, bool from_image)
{
    std::string& name = member_of_type(config, "hostname", "").get_ref<std::string&>();
    if (!container.options.host_name.empty())
        name = container.options.host_name;
    else if (from_image || name.empty())
        name = host_name_of(container.id);
}

std::string port_text(const PublishedPort& port)
{
    const bool six = port.address.find(':') != port.address.npos;
    const std::string address = port.address.empty() ? "0.0.0.0"
                                : six                ? fmt::format("[{}]", port.address)
                                                     : port.address;
    return fmt::format("{}:{}->{}/{}", address, port.host, port.container,
                       port.udp ? "udp" : "tcp");
}

ContainerNotes notes_of(const NewContainer& container)
{
    ContainerNotes notes;
    notes.image = container.image;
    for (const PublishedPort& port : container.network.ports)
        notes.ports.push_back(port_text(port));
    notes.created = std::time(nullptr);
    notes.tty = container.options.tty;
    notes.interactive = container.options.interactive;
    notes.remove = container.options.remove;
    return notes;
}

} // namespace

void add_network(Json& config, const Network& network, const std::string& files)
{
    set_namespaces(config, network.kind == NetworkKind::kHost);
    Json mounts = Json::array();
    mounts.push_back(file_mount(files, kHosts));
    mounts.push_back(file_mount(files, kHostName));
    if (network.kind != NetworkKind::kNone)
        mounts.push_back(file_mount(files, kResolver));
    Json& all = member_of_type(config, "mounts", Json::array());
    all.insert(all.begin(), mounts.begin(), mounts.end());
}

void make_container_bundle(const std::string& bundle, const std::string& source,
                           const NewContainer& container, const Json* image)
{
    Json config = read_config(source);
    const bool copied = bundle != source;
    if (copied && ::mkdir(bundle.c_str(), 0700) != 0)
        throw_error(bundle);
    const znc::UniqueFd dir(
        ::open(bundle.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir)
        throw_error(bundle);
    if (copied) {
        copy_layers(dir.get(), source);
        if (!replace_file(dir.get(), kSource, source))
            throw_error(bundle);
    }
    make_root_absolute(config, source);
    set_host_name(config, container, image != nullptr);
    configure(config, container.options, image);
    if (container.network.kind != NetworkKind::kConfigured) {
        write_files(dir.get(), text_of(config, "hostname"), container.network);
        add_network(config, container.network, bundle);
    }
    if (!replace_file(dir.get(), kConfig, pretty(config)) ||
        !write_notes(dir.get(), notes_of(container)))
        throw_error(bundle + "/" + kConfig);
}

std::string source_of_bundle(const std::string& bundle)
{
    return read_file(bundle + "/" + kSource).value_or("");
}

} // namespace zncctl
