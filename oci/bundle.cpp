#include "bundle.hpp"

#include "fields.hpp"
#include "front/files.hpp"
#include "front/words.hpp"
#include "hooks.hpp"
#include "zarnel/fs.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

namespace zncrun {
namespace {

void read_list(const Fields& fields, const char* key, TextList& list)
{
    fields.each_text(key, [&](const std::string& one) { list.add(one); });
}

std::uint32_t required_id(const Fields& fields, const char* key, std::int64_t least)
{
    const auto number = fields.number(key, least, UINT32_MAX);
    if (!number)
        throw Failure(fields.name(key) + ": is missing");
    return static_cast<std::uint32_t>(*number);
}

void read_ids(const Fields& fields, const char* key, std::vector<ZN_ENGINE_IDS>& ids)
{
    fields.each(key, [&](const Json& one, const std::string& where) {
        const Fields range(one, where);
        ids.push_back({required_id(range, "containerID", 0), required_id(range, "hostID", 0),
                       required_id(range, "size", 1)});
    });
}

std::string real_path(const std::string& path, const char* what)
{
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved) == nullptr)
        throw Failure(fmt::format("{} {:?}: {}", what, path, zncctl::error_text()));
    return resolved;
}

// The sixth field of the user's line in the passwd file inside the tree; "/" without one.
std::string home_of(std::int64_t uid, const std::string& rootfs)
{
    const znc::UniqueFd root(::open(rootfs.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const znc::UniqueFd file(root ? znFileOpenInRoot(root.get(), "/etc/passwd") : -1);
    struct stat st = {};
    if (!file || ::fstat(file.get(), &st) != 0)
        return "/";
    const znc::FileText content = znc::read_text(file.get(), st);
    std::string_view left = content.bytes ? std::string_view(content.bytes.get(), content.len) : "";
    while (!left.empty()) {
        std::string_view line = left.substr(0, left.find('\n'));
        left.remove_prefix(std::min(line.size() + 1, left.size()));
        std::vector<std::string_view> fields;
        for (std::size_t end = 0; end != line.npos;) {
            end = line.find(':');
            fields.push_back(line.substr(0, end));
            line.remove_prefix(end == line.npos ? line.size() : end + 1);
        }
        if (fields.size() == 7 && zncctl::to_number<std::int64_t>(fields[2]) == uid &&
            !fields[5].empty())
            return std::string(fields[5]);
    }
    return "/";
}

} // namespace

// If LISTEN_PID names another process, the sockets are not for this one: an engine that was started
// by a service manager passes its environment on.
int listening_descriptors()
{
    const char* sockets = std::getenv("LISTEN_FDS");
    const char* receiver = std::getenv("LISTEN_PID");
    if (sockets == nullptr || (receiver != nullptr && receiver != std::to_string(::getpid())))
        return 0;
    return std::clamp(zncctl::to_number<int>(sockets).value_or(0), 0, ZN_ENGINE_DESCRIPTORS_MAX);
}

void TextList::add(const std::string& text)
{
    texts_.push_back(text);
    pointers_.back() = texts_.back().data();
    pointers_.push_back(nullptr);
}

Process Process::read(const Json& json)
{
    constexpr std::int64_t kLongest = 65535; // rows or columns of a terminal
    const Fields fields(json, "process");
    Process process;
    process.cwd = fields.text("cwd");
    if (process.cwd.empty() || process.cwd[0] != '/')
        throw Failure("process.cwd: must be an absolute path");
    read_list(fields, "args", process.args);
    if (process.args.size() == 0 || process.args.texts().front().empty())
        throw Failure("process.args: is missing or empty");
    read_list(fields, "env", process.env);
    process.terminal = fields.boolean("terminal");
    if (const auto size = fields.object("consoleSize")) {
        process.rows = static_cast<unsigned>(size->number("height", 0, kLongest).value_or(0));
        process.columns = static_cast<unsigned>(size->number("width", 0, kLongest).value_or(0));
    }
    return process;
}

bool Process::has_variable(const std::string& name) const
{
    return std::any_of(env.texts().begin(), env.texts().end(),
                       [&](const std::string& one) { return one.starts_with(name + "="); });
}

void Process::complete_environment(const Json& process, const std::string& rootfs)
{
    const Json* user = zncctl::member(process, "user");
    if (!has_variable("HOME"))
        env.add("HOME=" +
                home_of(zncctl::integer(zncctl::member(user, "uid")).value_or(0), rootfs));
    const int sockets = listening_descriptors();
    if (sockets == 0)
        return;
    env.add("LISTEN_FDS=" + std::to_string(sockets));
    env.add("LISTEN_PID=1");
}

ZN_ENGINE_PROGRAM Process::program(int console, int descriptors) const
{
    return {cwd.c_str(), args.get(), env.get(), descriptors, console, rows,   columns,
            FALSE,       nullptr,    0,         0,           nullptr, nullptr};
}

std::vector<std::string> drop_unknown_capabilities(Json& process)
{
    std::vector<std::string> dropped;
    const auto found = process.is_object() ? process.find("capabilities") : process.end();
    if (found == process.end() || !found->is_object())
        return dropped;
    for (auto& set : found->items()) {
        Json kept = Json::array();
        for (const Json& one : zncctl::children(&set.value())) {
            const std::string* name = zncctl::text(&one);
            if (name != nullptr && znEngineCapabilityKnown(name->c_str()) == FALSE)
                dropped.push_back(*name);
            else
                kept.push_back(one);
        }
        if (set.value().is_array())
            set.value() = kept;
    }
    std::sort(dropped.begin(), dropped.end());
    dropped.erase(std::unique(dropped.begin(), dropped.end()), dropped.end());
    return dropped;
}

Bundle::Bundle(const std::string& directory, const std::string& config)
    : directory_(real_path(directory.empty() ? "." : directory, "bundle"))
{
    const std::string path = config.empty() ? directory_ + "/config.json" : config;
    const auto text = zncctl::read_file(path);
    if (!text)
        throw Failure(fmt::format("{}: {}", path, zncctl::error_text()));
    document_ = *text;
    zncctl::JsonNotes notes;
    auto json = zncctl::parse_json(document_, &notes, zncctl::Annotations::kMayRepeat);
    if (!json)
        throw Failure(fmt::format("{}: {}", path, notes.problem));
    config_ = *std::move(json);
    const Fields fields(config_, "");
    const std::string version = fields.text("ociVersion");
    if (version.rfind("1.", 0) != 0)
        throw Failure(fmt::format("ociVersion: version {:?} is not supported", version));
    read_root();
    read_mounts();
    if (fields.find("process") == nullptr)
        throw Failure("process: is missing");
    Json& process = config_["process"];
    unknown_ = drop_unknown_capabilities(process);
    if (!unknown_.empty())
        document_ = zncctl::compact(config_);
    process_ = Process::read(process);
    process_.complete_environment(process, rootfs_);
    domain_ = fields.text("domainname");
    check_annotations();
    check_hooks(config_);
}

void Bundle::check_annotations() const
{
    const auto fields = Fields(config_, "").object("annotations");
    const Json all = annotations();
    for (const auto& one : all.items())
        if (!one.value().is_string())
            throw Failure(fields->name(one.key().c_str()) + ": not a string");
}

std::string Bundle::absolute(const std::string& path) const
{
    return !path.empty() && path[0] == '/' ? path : directory_ + "/" + path;
}

void Bundle::read_root()
{
    const auto root = Fields(config_, "").object("root");
    if (!root)
        throw Failure("root: is missing");
    const std::string path = root->text("path");
    if (path.empty())
        throw Failure("root.path: is missing");
    rootfs_ = real_path(absolute(path), "root.path");
}

void Bundle::read_mounts()
{
    Fields(config_, "").each("mounts", [&](const Json& one, const std::string& where) {
        const Fields fields(one, where);
        Mount& mount = mounts_.emplace_back();
        mount.destination = fields.text("destination");
        if (mount.destination.empty())
            throw Failure(where + ".destination: is missing");
        if (mount.destination[0] != '/') // configurations of older engines have relative paths
            mount.destination.insert(0, "/");
        mount.type = fields.text("type");
        mount.source = fields.text("source");
        read_list(fields, "options", mount.options);
        read_ids(fields, "uidMappings", mount.uids);
        read_ids(fields, "gidMappings", mount.gids);
        bool bind = mount.type == "bind";
        for (const std::string& option : mount.options.texts())
            bind = bind || option == "bind" || option == "rbind";
        if (bind)
            mount.source = absolute(mount.source);
    });
    for (const Mount& mount : mounts_)
        add_to_table(mount);
}

void Bundle::add_to_table(const Mount& mount)
{
    table_.push_back({mount.source.c_str(), mount.destination.c_str(),
                      mount.type.empty() ? nullptr : mount.type.c_str(), mount.options.get(),
                      mount.uids.data(), mount.uids.size(), mount.gids.data(), mount.gids.size()});
}

void Bundle::add_bind(const std::string& source, const std::string& destination,
                      std::initializer_list<const char*> flags)
{
    Mount& mount = mounts_.emplace_back();
    mount.source = source;
    mount.destination = destination;
    mount.options.add("bind");
    for (const char* flag : flags)
        mount.options.add(flag);
    add_to_table(mount);
}

Json Bundle::annotations() const
{
    const Json* annotations = zncctl::member(config_, "annotations");
    return zncctl::is_object(annotations) ? *annotations : Json::object();
}

std::string Bundle::group_path() const
{
    const auto section = Fields(config_, "").object("linux");
    return section ? section->text("cgroupsPath") : "";
}

std::string Bundle::group(const std::string& name) const
{
    const std::string path = group_path();
    if (path.find(':') != path.npos)
        throw Failure("linux.cgroupsPath: names a systemd slice, which needs --systemd-cgroup");
    if (path.empty())
        return "/zncrun/" + name;
    return path[0] == '/' ? path : "/" + path;
}

ZN_ENGINE_PLAN Bundle::plan(const std::string& group, int directory, int console,
                            int descriptors) const
{
    return {document_.c_str(),
            rootfs_.c_str(),
            domain_.empty() ? nullptr : domain_.c_str(),
            table_.data(),
            table_.size(),
            group.c_str(),
            directory,
            process_.program(console, descriptors),
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            nullptr};
}

} // namespace zncrun
