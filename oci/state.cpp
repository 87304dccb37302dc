#include "state.hpp"

#include "front/files.hpp"
#include "zarnel/fs.h"
#include "zarnel/path_trust.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

namespace zncrun {
namespace {

constexpr char kState[] = "state.json";
constexpr char kConfig[] = "config.json";
constexpr std::size_t kIdMax = 200;

[[noreturn]] void fail_at(const std::string& path)
{
    throw Failure(fmt::format("{}: {}", path, zncctl::error_text()));
}

// The files in this directory decide which processes are killed, so no other user may be able to
// change them.
void check_root(const Context& context)
{
    znPathTrust trust = {};
    if (znPathTrusted(context.root.c_str(), &trust) != OK)
        throw Failure(fmt::format("{}: {}", context.root,
                                  trust.fault[0] != '\0' ? trust.fault : zncctl::error_text()));
}

void make_root(const std::string& root)
{
    if (znMkdirParents(root.c_str(), 0700) != OK)
        fail_at(root);
}

std::string path_of(const Context& context, const std::string& id)
{
    if (!is_id(id))
        throw Failure(fmt::format("invalid container ID format: {:?}", id));
    check_root(context);
    return context.root + "/" + id;
}

znc::UniqueFd open_directory(const std::string& path)
{
    return znc::UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

Json parse(const std::string& text, const char* name)
{
    zncctl::JsonNotes notes;
    auto json = zncctl::parse_json(text, &notes, zncctl::Annotations::kMayRepeat);
    if (!json)
        throw DamagedState(fmt::format("{}: {}", name, notes.problem));
    return *std::move(json);
}

Json read_document(int directory, const char* name)
{
    const auto text = zncctl::read_file(name, directory);
    if (!text)
        throw Failure(fmt::format("{}: {}", name, zncctl::error_text()));
    return parse(*text, name);
}

} // namespace

std::string default_root()
{
    const char* own = std::getenv("XDG_RUNTIME_DIR");
    const bool hasOwn = own != nullptr && own[0] == '/' && znEngineRootless() != FALSE;
    return hasOwn ? std::string(own) + "/zncrun" : kDefaultRoot;
}

bool is_id(const std::string& id)
{
    constexpr char kAllowed[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_+-.";
    return !id.empty() && id.size() <= kIdMax && id != "." && id != ".." &&
           id.find_first_not_of(kAllowed) == id.npos;
}

const char* status_name(Status status)
{
    constexpr std::array kNames = {"creating", "created", "running", "paused", "stopped"};
    return kNames[static_cast<std::size_t>(status)];
}

StateDirectory StateDirectory::create(const Context& context, const std::string& id)
{
    const std::string path = path_of(context, id);
    make_root(context.root);
    check_root(context);
    if (::mkdir(path.c_str(), 0700) != 0) {
        if (errno == EEXIST)
            throw Failure(fmt::format("container with given ID already exists: {}", id));
        fail_at(path);
    }
    StateDirectory made = locked(path, Lock::kExclusive);
    if (!made)
        fail_at(path);
    return made;
}

namespace {

void take_lock(int directory, Lock lock, const std::string& path)
{
    constexpr auto kPatience = std::chrono::seconds(5);
    constexpr auto kPause = std::chrono::milliseconds(10);
    const bool isBounded = lock == Lock::kBounded;
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (::flock(directory, isBounded ? LOCK_EX | LOCK_NB : LOCK_EX) != 0) {
        if (errno == EWOULDBLOCK && std::chrono::steady_clock::now() >= deadline)
            throw Failure(path + ": another command is changing the container");
        if (errno == EWOULDBLOCK)
            std::this_thread::sleep_for(kPause);
        else if (errno != EINTR)
            fail_at(path);
    }
}

} // namespace

// Opens and locks the directory. If it was removed while this process waited for the lock, starts
// again.
StateDirectory StateDirectory::locked(const std::string& path, Lock lock)
{
    for (;;) {
        znc::UniqueFd directory = open_directory(path);
        if (!directory)
            return {path, znc::UniqueFd()};
        if (lock == Lock::kNone)
            return {path, std::move(directory)};
        take_lock(directory.get(), lock, path);
        struct stat held = {};
        struct stat there = {};
        if (::fstat(directory.get(), &held) == 0 && ::lstat(path.c_str(), &there) == 0 &&
            held.st_ino == there.st_ino && held.st_dev == there.st_dev)
            return {path, std::move(directory)};
    }
}

StateDirectory StateDirectory::find(const Context& context, const std::string& id, Lock lock)
{
    StateDirectory found = locked(path_of(context, id), lock);
    if (!found && errno != ENOENT)
        fail_at(found.path_);
    return found;
}

StateDirectory StateDirectory::open(const Context& context, const std::string& id, Lock lock)
{
    StateDirectory found = find(context, id, lock);
    if (!found)
        throw Failure(fmt::format("container {:?} does not exist", id));
    return found;
}

bool StateDirectory::has_state() const
{
    return ::faccessat(directory_.get(), kState, F_OK, 0) == 0;
}

Container StateDirectory::read() const
{
    if (!has_state()) // `create` was killed before it wrote the file
        throw Failure(fmt::format("container {:?} does not exist",
                                  std::filesystem::path(path_).filename().string()));
    const Json json = read_document(directory_.get(), kState);
    const auto pid = zncctl::integer(zncctl::member(json, "pid"));
    const auto start = zncctl::integer(zncctl::member(json, "startTime"));
    if (!pid || *pid < 0 || *pid > std::numeric_limits<pid_t>::max() || !start || *start < 0)
        throw DamagedState(fmt::format("{}/{}: no process id", path_, kState));
    Container container;
    container.id = zncctl::text_of(json, "id");
    container.bundle = zncctl::text_of(json, "bundle");
    container.rootfs = zncctl::text_of(json, "rootfs");
    container.created = zncctl::text_of(json, "created");
    container.group = zncctl::text_of(json, "cgroup");
    container.mark = zncctl::text_of(json, "cgroupMark");
    container.scope = zncctl::text_of(json, "systemdScope");
    container.process.pid = static_cast<pid_t>(*pid);
    container.process.startTime = static_cast<unsigned long long>(*start);
    if (const Json* annotations = zncctl::member(json, "annotations"))
        container.annotations = *annotations;
    return container;
}

void StateDirectory::write(const Container& container) const
{
    Json json = Json::object();
    json["id"] = container.id;
    json["bundle"] = container.bundle;
    json["rootfs"] = container.rootfs;
    json["created"] = container.created;
    json["cgroup"] = container.group;
    json["cgroupMark"] = container.mark;
    if (!container.scope.empty())
        json["systemdScope"] = container.scope;
    json["pid"] = container.process.pid;
    json["startTime"] = container.process.startTime;
    json["annotations"] = container.annotations;
    if (!zncctl::replace_file(directory_.get(), kState, zncctl::pretty(json)))
        fail_at(path_ + "/" + kState);
}

Json StateDirectory::read_config() const
{
    return read_document(directory_.get(), kConfig);
}

void StateDirectory::write_config(const std::string& document) const
{
    if (!zncctl::replace_file(directory_.get(), kConfig, document))
        fail_at(path_ + "/" + kConfig);
}

Status StateDirectory::status(const Container& container) const
{
    if (container.process.pid == 0)
        return Status::kCreating;
    if (znEngineProcessAlive(&container.process) == FALSE)
        return Status::kStopped;
    BOOL frozen = FALSE;
    const bool isPaused = !container.group.empty() &&
                          znEngineGroupFrozen(container.group.c_str(), &frozen) == OK &&
                          frozen != FALSE;
    if (isPaused)
        return Status::kPaused;
    return znEngineWaits(directory_.get()) != FALSE ? Status::kCreated : Status::kRunning;
}

void StateDirectory::remove()
{
    std::error_code error;
    std::filesystem::remove_all(path_, error);
    if (error)
        throw Failure(fmt::format("{}: {}", path_, error.message()));
    directory_.reset();
}

std::vector<std::string> state_ids(const Context& context)
{
    std::vector<std::string> ids;
    check_root(context);
    std::error_code error;
    for (std::filesystem::directory_iterator at(context.root, error), end; !error && at != end;
         at.increment(error))
        if (is_id(at->path().filename().string()))
            ids.push_back(at->path().filename().string());
    std::sort(ids.begin(), ids.end());
    return ids;
}

Json state_document(const Container& container, Status status)
{
    Json json = Json::object();
    json["ociVersion"] = kSpecification;
    json["id"] = container.id;
    json["pid"] = status == Status::kStopped ? 0 : container.process.pid;
    json["status"] = status_name(status);
    json["bundle"] = container.bundle;
    json["rootfs"] = container.rootfs;
    json["created"] = container.created;
    json["annotations"] = container.annotations;
    json["owner"] = "";
    return json;
}

} // namespace zncrun
