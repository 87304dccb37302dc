#include "record.hpp"

#include "base/failure.hpp"
#include "container_id.hpp"
#include "files.hpp"
#include "json.hpp"
#include "words.hpp"
#include "zarnel/daemon_file.h"

#include <array>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <utility>

namespace zncctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRecordsDir = "containers"; // subdirectory of the runtime directory
constexpr const char* kStatusName = "status.json";
constexpr const char* kLockName = "lock";
constexpr const char* kNetworkName = "network";
constexpr std::chrono::seconds kKeeperTimeout(10);

using Clock = std::chrono::steady_clock;

znc::UniqueFd open_dir(int parent, const std::string& name)
{
    return znc::UniqueFd(
        ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

znc::UniqueFd make_dir(int parent, const std::string& name)
{
    if (::mkdirat(parent, name.c_str(), 0700) != 0 && errno != EEXIST)
        return {};
    return open_dir(parent, name);
}

// The runtime directory, which the daemon uses as well. A directory of another user or a symbolic
// link is rejected.
znc::UniqueFd open_runtime(bool make)
{
    znc::UniqueFd dir =
        make ? make_dir(AT_FDCWD, ZN_RUNTIME_DIR) : open_dir(AT_FDCWD, ZN_RUNTIME_DIR);
    struct stat st = {};
    if (dir && ::fstat(dir.get(), &st) == 0 && st.st_uid != ::geteuid())
        return znc::fail(EPERM, znc::UniqueFd());
    return dir;
}

znc::UniqueFd open_lock(int dir, bool make)
{
    const int flags = O_RDWR | O_NOFOLLOW | O_CLOEXEC | (make ? O_CREAT : 0);
    return znc::UniqueFd(::openat(dir, kLockName, flags, 0600));
}

bool take_lock(int lock)
{
    const auto deadline = Clock::now() + kKeeperTimeout;
    while (::flock(lock, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK)
            return false;
        if (Clock::now() >= deadline)
            return znc::fail(EBUSY, false);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// The integer member `key`; nullopt if it is missing or does not fit into an int.
std::optional<int> number_of(const Json& json, const char* key)
{
    const auto number = integer(member(json, key));
    return number && std::in_range<int>(*number) ? std::optional(static_cast<int>(*number))
                                                 : std::nullopt;
}

Record from_json(const Json& json)
{
    Record record;
    record.keeper = number_of(json, "keeper").value_or(0);
    record.program = number_of(json, "program").value_or(0);
    record.pid_namespace = text_of(json, "pidNamespace");
    const Json* logged = member(json, "logged");
    record.logged = logged != nullptr && *logged == true;
    const Json* tty = member(json, "tty");
    record.tty = tty != nullptr && *tty == true;
    record.started = text_of(json, "started");
    record.exited = text_of(json, "exited");
    record.exit_code = number_of(json, "exitCode");
    const Json* killed = member(json, "oomKilled");
    record.out_of_memory = killed != nullptr && *killed == true;
    return record;
}

// The directory of a container's record, which is created if it does not exist.
znc::UniqueFd make_record(const std::string& id)
{
    if (!is_container_id(id))
        return znc::fail(EINVAL, znc::UniqueFd());
    const znc::UniqueFd runtime = open_runtime(true);
    const znc::UniqueFd area = runtime ? make_dir(runtime.get(), kRecordsDir) : znc::UniqueFd();
    return area ? make_dir(area.get(), kept_id(id)) : znc::UniqueFd();
}

// Fails with ENXIO if no process has the FIFO open for reading.
znc::UniqueFd open_network_end(int dir, int flags)
{
    znc::UniqueFd fifo(::openat(dir, kNetworkName, flags | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat st = {};
    if (!fifo || ::fstat(fifo.get(), &st) != 0 || S_ISFIFO(st.st_mode))
        return fifo;
    return znc::fail(EINVAL, znc::UniqueFd());
}

} // namespace

RecordKeeper RecordKeeper::begin(const std::string& id)
{
    RecordKeeper keeper;
    keeper.dir_ = make_record(id);
    znc::UniqueFd lock = keeper.dir_ ? open_lock(keeper.dir_.get(), true) : znc::UniqueFd();
    if (!lock || !take_lock(lock.get()))
        return {};
    for (const char* old :
         {kStatusName, kInputName, kLogName, kOldLogName, kLogTimesName, kOldLogTimesName})
        ::unlinkat(keeper.dir_.get(), old, 0);
    if (::ftruncate(lock.get(), 0) != 0)
        return {};
    keeper.lock_ = std::move(lock);
    return keeper;
}

void RecordKeeper::write(const Record& record) const
{
    Json json = {{"keeper", record.keeper},
                 {"program", record.program},
                 {"pidNamespace", record.pid_namespace},
                 {"logged", record.logged},
                 {"tty", record.tty},
                 {"started", record.started}};
    if (record.exit_code) {
        json["exitCode"] = *record.exit_code;
        json["exited"] = record.exited;
        json["oomKilled"] = record.out_of_memory;
        const std::string code = std::to_string(*record.exit_code);
        if (::pwrite(lock_.get(), code.data(), code.size(), 0) < 0)
            errno = 0; // the record itself may still be written
    }
    static_cast<void>(replace_file(dir_.get(), kStatusName, pretty(json)));
}

znc::UniqueFd open_record(const std::string& id)
{
    if (!is_container_id(id))
        return znc::fail(EINVAL, znc::UniqueFd());
    const znc::UniqueFd runtime = open_runtime(false);
    const znc::UniqueFd area = runtime ? open_dir(runtime.get(), kRecordsDir) : znc::UniqueFd();
    return area ? open_dir(area.get(), kept_id(id)) : znc::UniqueFd();
}

std::optional<Record> read_record(int dir)
{
    const auto text = read_file(kStatusName, dir);
    const auto json = text ? parse_json(*text) : std::nullopt;
    if (!json || !json->is_object())
        return std::nullopt;
    return from_json(*json);
}

std::optional<Record> read_record(const std::string& id)
{
    const znc::UniqueFd dir = open_record(id);
    return dir ? read_record(dir.get()) : std::nullopt;
}

bool record_is_kept(int dir)
{
    const znc::UniqueFd lock = open_lock(dir, false);
    return lock && ::flock(lock.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

RecordEnd::RecordEnd(int dir) : lock_(open_lock(dir, false)) {}

std::optional<int> RecordEnd::exit_code() const
{
    std::array<char, 16> text{};
    const ssize_t length = ::pread(lock_.get(), text.data(), text.size(), 0);
    return length > 0 ? to_number<int>({text.data(), static_cast<std::size_t>(length)})
                      : std::nullopt;
}

znc::UniqueFd open_runtime_area(const char* name, bool make)
{
    const znc::UniqueFd runtime = open_runtime(make);
    if (!runtime)
        return {};
    return make ? make_dir(runtime.get(), name) : open_dir(runtime.get(), name);
}

std::vector<std::string> recorded_ids()
{
    std::vector<std::string> ids;
    std::error_code error;
    for (fs::directory_iterator it(std::string(ZN_RUNTIME_DIR) + "/" + kRecordsDir, error), end;
         it != end && !error; it.increment(error))
        ids.push_back(it->path().filename());
    return ids;
}

void remove_record(const std::string& id)
{
    const znc::UniqueFd dir = open_record(id);
    if (!dir)
        return;
    // The lock file is removed as well. A process that still keeps the record continues to write to
    // the unlinked files.
    for (const char* name : {kStatusName, "status.json.new", kInputName, kLogName, kOldLogName,
                             kLogTimesName, kOldLogTimesName, kLockName})
        ::unlinkat(dir.get(), name, 0);
    if (!open_network_end(dir.get(), O_WRONLY))
        ::unlinkat(dir.get(), kNetworkName, 0);
    const znc::UniqueFd area = open_dir(dir.get(), "..");
    if (area)
        ::unlinkat(area.get(), kept_id(id).c_str(), AT_REMOVEDIR);
}

znc::UniqueFd make_network_end(const std::string& id)
{
    const znc::UniqueFd dir = make_record(id);
    if (!dir || (::unlinkat(dir.get(), kNetworkName, 0) != 0 && errno != ENOENT) ||
        ::mkfifoat(dir.get(), kNetworkName, 0600) != 0)
        return {};
    // Also opened for writing: otherwise the FIFO would become readable (end of file) as soon as a
    // writer closes it, even if nothing was written.
    return open_network_end(dir.get(), O_RDWR);
}

NetworkEnd::NetworkEnd(const std::string& id) : dir_(open_record(id))
{
    if (dir_)
        writer_ = open_network_end(dir_.get(), O_WRONLY);
}

void NetworkEnd::ask() const
{
    // Open a reading end, too: without any reader, the write would raise SIGPIPE.
    const znc::UniqueFd reader = writer_ ? open_network_end(dir_.get(), O_RDONLY) : znc::UniqueFd();
    if (reader && !write_all(writer_.get(), "\n"))
        errno = 0; // the FIFO is full: the network has been asked to end already
}

bool NetworkEnd::wait() const
{
    constexpr int kTimeout = 10000;
    // POLLERR: the last reader has closed it.
    pollfd end = {writer_.get(), 0, 0};
    return !writer_ || ::poll(&end, 1, kTimeout) > 0;
}

} // namespace zncctl
