#include "configure.hpp"

#include "environment.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "rights_options.hpp"
#include "user_lookup.hpp"

#include <fcntl.h>
#include <fmt/format.h>

namespace zncctl {
namespace {

constexpr const char* kTerm = "xterm"; // every terminal database has it

Json& object_at(Json& object, const char* key)
{
    Json& value = object[key];
    if (!value.is_object())
        value = Json::object();
    return value;
}

// As in container engines, the image's command is used only with the image's own entry point.
void set_command(Json& process, const ContainerOptions& options, const Json* image)
{
    if (!options.entrypoint && options.command.empty())
        return;
    std::vector<std::string> words =
        options.entrypoint.value_or(texts_of(member(image, "Entrypoint")));
    std::vector<std::string> command = options.command;
    if (command.empty() && options.entrypoint->empty())
        command = texts_of(image != nullptr ? member(image, "Cmd") : member(process, "args"));
    words.insert(words.end(), command.begin(), command.end());
    if (words.empty())
        throw std::runtime_error("there is no command to run");
    process["args"] = words;
}

// `whose` is the beginning of the message if the user does not exist. If no user is named, root is
// used, which needs no entry; only its home directory is looked up.
User find_user(const Json& config, const std::string& name, const char* whose)
{
    const std::string path = text_of(member(config, "root"), "path");
    const znc::UniqueFd root(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root && !name.empty())
        throw_error(path);
    User user;
    std::string error;
    if (root && !lookup_user(root.get(), name, user, error) && !name.empty())
        throw std::runtime_error(fmt::format("{} '{}': {}", whose, printable(name), error));
    return user;
}

bool sets(const Json* image, std::string_view name)
{
    return Environment(texts_of(member(image, "Env"))).value(name) != nullptr;
}

void set_user(Json& config, Json& process, const ContainerOptions& options, const Json* image,
              Environment& environment)
{
    const bool chosen = !options.user.empty();
    const std::string name = chosen ? options.user : text_of(image, "User");
    const User user = find_user(config, name, chosen ? "the user" : "the image's user");
    if (!name.empty())
        process["user"] = {{"uid", user.uid}, {"gid", user.gid}};
    if (!user.groups.empty())
        process["user"]["additionalGids"] = user.groups;
    // HOME in a bundle's configuration may be that of the image's own user.
    if (image != nullptr ? !sets(image, "HOME") : environment.value("HOME") == nullptr)
        environment.set("HOME", user.home);
}

void set_process(Json& config, Json& process, const ContainerOptions& options, const Json* image)
{
    set_command(process, options, image);
    Environment environment(texts_of(member(process, "env")));
    // The user is looked up for each container: that of an image need not exist if the container
    // gets another one.
    if (!options.user.empty() || image != nullptr)
        set_user(config, process, options, image, environment);
    if (image != nullptr && environment.value("PATH") == nullptr)
        environment.set("PATH", kDefaultPath);
    const std::string host_name = text_of(config, "hostname");
    const bool named = image != nullptr || !options.host_name.empty();
    if (named && environment.value("HOSTNAME") == nullptr)
        environment.set("HOSTNAME", host_name);
    if (options.tty && environment.value("TERM") == nullptr)
        environment.set("TERM", kTerm);
    for (const std::string& variable : options.environment)
        environment.apply(variable);
    process["env"] = environment.entries();
    if (!options.directory.empty())
        process["cwd"] = options.directory;
    if (options.no_new_privileges)
        process["noNewPrivileges"] = *options.no_new_privileges;
    apply_capabilities(process, options);
}

// A mount given by the user replaces one of the configuration at the same destination.
void add_mounts(Json& config, const Json& added)
{
    Json result = Json::array();
    for (const Json& mount : children(member(config, "mounts"))) {
        bool replaced = false;
        for (const Json& other : added)
            replaced = replaced || text_of(other, "destination") == text_of(mount, "destination");
        if (!replaced)
            result.push_back(mount);
    }
    for (const Json& mount : added)
        result.push_back(mount);
    config["mounts"] = std::move(result);
}

// With a read-only root, programs still need places for temporary files.
void add_temporary_places(Json& config)
{
    struct Place {
        const char* path;
        const char* mode;
    };
    for (const Place& place :
         {Place{"/run", "mode=755"}, Place{"/tmp", "mode=1777"}, Place{"/var/tmp", "mode=1777"}}) {
        bool taken = false;
        for (const Json& mount : children(member(config, "mounts"))) {
            const std::string destination = text_of(mount, "destination");
            taken = taken || destination == place.path ||
                    destination.starts_with(std::string(place.path) + "/");
        }
        if (!taken)
            config["mounts"].push_back({{"destination", place.path},
                                        {"type", "tmpfs"},
                                        {"source", "tmpfs"},
                                        {"options", {"nosuid", "nodev", place.mode}}});
    }
}

void set_limits(Json& config, const Json& limits)
{
    Json& resources = object_at(object_at(config, "linux"), "resources");
    for (const auto& group : limits.items())
        for (const auto& limit : group.value().items())
            object_at(resources, group.key().c_str())[limit.key()] = limit.value();
}

} // namespace

void configure(Json& config, const ContainerOptions& options, const Json* image)
{
    if (image == nullptr && !options.changes_configuration())
        return;
    Json& process = object_at(config, "process");
    set_process(config, process, options, image);
    add_mounts(config, options.mounts);
    if (options.read_only) {
        object_at(config, "root")["readonly"] = true;
        add_temporary_places(config);
    }
    for (const auto& label : options.labels.items())
        object_at(config, "annotations")[label.key()] = label.value();
    if (!options.limits.empty())
        set_limits(config, options.limits);
    if (!options.seccomp.is_null())
        object_at(config, "linux")["seccomp"] =
            seccomp_of_profile(options.seccomp, capabilities_of(process));
}

} // namespace zncctl
