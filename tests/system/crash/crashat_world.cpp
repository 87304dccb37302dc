#include "crashat_world.hpp"

#include "bundle.hpp"
#include "layout_builder.hpp"
#include "zncontainer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

// Longer than any operation takes on a busy machine.
constexpr seconds kHang(60);
constexpr seconds kQuiet(60);
constexpr seconds kSweep(60);
constexpr milliseconds kPatience(50); // initial interval
constexpr milliseconds kMostPatience(1000);

bool is_asleep(pid_t pid)
{
    const std::string stat = layout::read_file("/proc/" + std::to_string(pid) + "/stat");
    return stat.find(") S ") != std::string::npos;
}

void restore_signals()
{
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
}

void make_image()
{
    const layout::Layout image(kImage);
    layout::Image content;
    content.layers = {layout::tar({layout::directory("etc/"), {"etc/one", "first"}}),
                      layout::gzip(layout::tar({layout::directory("etc/"),
                                                {"etc/two", "second"},
                                                {".wh.gone", ""},
                                                layout::symlink("link", "etc/one")}))};
    layout::Layout(kImage).add(content);
}

// Prints why a step failed and returns its number.
int failed(int step)
{
    std::printf("step %d: error 0x%x\n", step, static_cast<unsigned>(errno));
    std::fflush(stdout);
    return step;
}

// Runs what must work after every fault; returns 0, or the number of the step that failed.
int containers_work()
{
    // If a delete fails, a second one always succeeds.
    if (zncDelete(kId, ZNC_OPT_WHOLE_NAMESPACE) != OK && errno != ENODEV &&
        zncDelete(kId, ZNC_OPT_WHOLE_NAMESPACE) != OK && errno != ENODEV)
        return failed(1);
    if (zncCreate(kId, kShortBundle, 0, nullptr) != OK)
        return failed(2);
    if (zncStart(kId, 0) <= 0)
        return failed(3);
    return zncDelete(kId, 0) == OK ? 0 : failed(4);
}

// Returns the files that unpacking keeps for later. A fault can leave a tree that differs from the
// next one, which is then set aside; a collection removes that.
constexpr std::array kKept = {"/tmp/storage/layers", "/tmp/storage/flattened", "/overlay"};

std::string kept_names()
{
    std::set<std::string> names;
    std::error_code error;
    for (const char* kept : kKept)
        for (fs::directory_iterator it(kept, error), end; !error && it != end; it.increment(error))
            if (const fs::path name = it->path().filename();
                name != ".lock" && // only records which process is working
                !name.string().starts_with(".old-"))
                names.insert(it->path());
    std::string text;
    for (const std::string& name : names)
        text += name + "\n";
    return text;
}

// An image can have only one device, which must be removed before the image is unpacked again.
void detach_devices()
{
    std::error_code error;
    for (fs::directory_iterator it("/overlay", error), end; !error && it != end;
         it.increment(error))
        ::umount2(it->path().c_str(), MNT_DETACH);
}

// Removes all of that, so that the next run starts with an empty storage base.
void forget_images()
{
    detach_devices();
    std::error_code error;
    for (const char* kept : kKept)
        for (fs::directory_iterator it(kept, error), end; !error && it != end; it.increment(error))
            fs::remove_all(it->path(), error);
}

// Returns the path of the root from config.json.
fs::path root_of_bundle()
{
    const std::string config = layout::read_file(fs::path(kUnpacked) / "config.json");
    constexpr std::string_view kKey = "\"path\":";
    const std::size_t from = config.find('"', config.find(kKey) + kKey.size()) + 1;
    return fs::path(kUnpacked) / config.substr(from, config.find('"', from) - from);
}

int images_work()
{
    static_cast<void>(zncImageBundleDelete(kUnpacked));
    if (fs::exists(kUnpacked))
        return failed(10);
    detach_devices();
    if (zncUnpack(kUnpacked, kImage, nullptr, 0, nullptr) != OK)
        return failed(11);
    if (zncImageBundleDelete(kUnpacked) != OK)
        return failed(12);
    if (zncUnpack(kUnpacked, kImage, nullptr, ZNC_OPT_FLATTEN, nullptr) != OK)
        return failed(13);
    const fs::path root = root_of_bundle();
    if (layout::read_file(root / "etc/one") != "first" ||
        layout::read_file(root / "etc/two") != "second" ||
        fs::read_symlink(root / "link") != "etc/one")
        return failed(14);
    return zncImageBundleDelete(kUnpacked) == OK ? 0 : failed(15);
}

int collection_works()
{
    if (zncStoreCollect(nullptr, 0, 0, nullptr, nullptr) != OK)
        return failed(16);
    for (const char* area :
         {kKept[0], kKept[1]}) // the device is not in the record of the second unpack
        for (const fs::directory_entry& entry : fs::directory_iterator(area))
            if (entry.path().filename() != ".lock") {
                std::printf("a collection leaves %s\n", entry.path().c_str());
                return failed(17);
            }
    return 0;
}

// Ends a client process: exceptions of the body must not propagate into the driver's code.
[[noreturn]] void end_with(const std::function<int()>& body)
{
    int result = 119;
    try {
        result = body();
    } catch (const std::exception& wrong) {
        std::printf("%s\n", wrong.what());
    }
    std::fflush(stdout);
    ::_exit(result);
}

Complaint step_failed(int step)
{
    return step == 0 ? "" : "step " + std::to_string(step) + " after the fault fails\n";
}

} // namespace

void World::make_bundles()
{
    const std::string mounts = R"(,"mounts":[
        {"source":"/etc","destination":"/mnt","type":"bind","options":["ro"]},
        {"source":"tmpfs","destination":"/scratch","type":"tmpfs"}])";
    make_bundle(kShortBundle, {"/bin/true"}, mounts);
    make_bundle(kLongBundle, {"/bin/sleep", "1000"}, mounts);
    make_image();
}

World::World(const std::string& daemonProgram) : program_(daemonProgram), tracer_(daemonProgram)
{
    ::signal(SIGPIPE, SIG_IGN);
    ::setenv("ZNC_BASE", kStorage, 1);
    make_bundles();
}

World::~World()
{
    for (const pid_t holder : holders_)
        kill(holder);
    if (daemon_ > 0 && daemon_lives()) {
        ::kill(daemon_, SIGTERM);
        ended(daemon_, kHang);
    }
}

World::Client World::client(const std::function<int()>& body)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe");
    const pid_t pid = ::fork();
    if (pid == 0) {
        restore_signals();
        ::close(ends[1]);
        char byte = 0;
        if (::read(ends[0], &byte, 1) != 1)
            ::_exit(120);
        end_with(body);
    }
    ::close(ends[0]);
    tracer_.expect(pid);
    clients_.insert(pid);
    return {pid, ends[1]};
}

void World::let_go(Client& client)
{
    static_cast<void>(::write(client.go, "g", 1) == 1);
    ::close(client.go);
}

bool World::ended(pid_t client, milliseconds limit)
{
    return tracer_.serve_until([&] { return tracer_.status(client).has_value(); }, limit);
}

void World::kill(pid_t client)
{
    ::kill(client, SIGKILL);
    ended(client, kHang);
}

int World::run(const std::function<int()>& body)
{
    Client one = client(body);
    let_go(one);
    if (!ended(one.pid, kHang)) {
        kill(one.pid);
        return -1;
    }
    const int status = tracer_.status(one.pid).value_or(-1);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Complaint World::start_long_container()
{
    if (run([] { return zncCreate(kId, kLongBundle, 0, nullptr) == OK ? 0 : 1; }) != 0)
        return "the container cannot be created\n";
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        return "pipe\n";
    Client holder = client([&] {
        if (zncStart(kId, ZNC_OPT_NO_WAIT) != OK || ::write(ends[1], "r", 1) != 1)
            return 1;
        int status = 0;
        return ::waitpid(-1, &status, 0) > 0 ? 0 : 1;
    });
    holders_.push_back(holder.pid);
    let_go(holder);
    ::close(ends[1]);
    char byte = 0;
    const bool runs =
        tracer_.serve_until([&] { return ::read(ends[0], &byte, 1) >= 0; }, kHang) && byte == 'r';
    ::close(ends[0]);
    return runs ? "" : "the container cannot be started\n";
}

pid_t World::launch_daemon(const std::function<void(pid_t)>& adopted)
{
    Client process = client([this] {
        const int log = ::open("/tmp/zncd.log", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ::dup2(log, 2);
        ::execl(program_.c_str(), program_.c_str(), static_cast<char*>(nullptr));
        return 127;
    });
    daemon_ = process.pid;
    traced_ = static_cast<bool>(adopted);
    if (adopted)
        adopted(daemon_);
    let_go(process);
    return daemon_;
}

Complaint World::await_daemon()
{
    const auto deadline = std::chrono::steady_clock::now() + kHang;
    milliseconds patience = kPatience;
    for (bool answers = false; !answers;) {
        if (std::chrono::steady_clock::now() >= deadline)
            return "zncd does not answer\n";
        // A request sent to the queue of a dead daemon would never be answered.
        Client asking = client([] { return zncDaemonIsAlive() != FALSE ? 0 : 1; });
        let_go(asking);
        tracer_.serve_until(
            [&] { return tracer_.status(asking.pid).has_value() || !daemon_lives(); }, patience);
        answers = tracer_.status(asking.pid) == 0;
        if (!tracer_.status(asking.pid)) {
            kill(asking.pid);
            patience = std::min(2 * patience, kMostPatience);
        }
        if (!daemon_lives())
            return "zncd ended instead of serving\n";
    }
    if (!traced_)
        traced_ = tracer_.adopt(daemon_, Side::kDaemon);
    return "";
}

void World::kill_daemon()
{
    kill(daemon_);
}

Complaint World::ensure_daemon()
{
    // A process that is still running may be about to end.
    if (daemon_ > 0 && daemon_lives() && await_daemon().empty())
        return "";
    if (daemon_ > 0 && daemon_lives())
        return "zncd hangs\n";
    launch_daemon();
    return await_daemon();
}

Complaint World::check_containers()
{
    const Complaint wrong = step_failed(run(containers_work));
    // Clients that waited for containers must have returned.
    for (const pid_t holder : holders_)
        if (!ended(holder, kHang)) {
            kill(holder);
            return wrong + "a container's client still waits\n";
        }
    holders_.clear();
    return wrong;
}

Complaint World::check_images()
{
    Complaint wrong = step_failed(run(images_work));
    const std::string kept = kept_names();
    if (keptNames_.empty())
        keptNames_ = kept;
    if (kept != keptNames_)
        wrong += "unpacking leaves\n" + kept + "instead of\n" + keptNames_;
    wrong += step_failed(run(collection_works));
    forget_images();
    return wrong;
}

std::string World::without_pending(const std::string& text)
{
    std::istringstream lines(text);
    std::string kept;
    constexpr std::string_view kQueue = "new: queue znc-u-";
    for (std::string line; std::getline(lines, line);) {
        const bool queue = line.rfind(kQueue, 0) == 0;
        const pid_t pid = queue ? std::atoi(line.c_str() + kQueue.size()) : 0;
        if (clients_.count(pid) == 0 || !tracer_.status(pid).has_value())
            kept += line + "\n";
    }
    return kept;
}

void World::take_baseline()
{
    if (!daemon_lives())
        return;
    // If two consecutive ledgers agree and the daemon is idle, the remaining differences are
    // permanent.
    Ledger last = Ledger::take(kStorage, daemon_);
    tracer_.serve_until(
        [&] {
            const bool sleeps = is_asleep(daemon_);
            const Ledger now = Ledger::take(kStorage, daemon_);
            const bool same = now.compared_with(last).empty();
            last = now;
            return sleeps && same;
        },
        kQuiet);
    before_ = last;
}

Complaint World::check_nothing_left()
{
    std::string left;
    tracer_.serve_until(
        [&] {
            if (!daemon_lives()) {
                left = "the daemon ended\n";
                return true;
            }
            left = without_pending(Ledger::take(kStorage, daemon_).compared_with(before_));
            return left.empty();
        },
        kQuiet);
    return left;
}

Complaint World::check_queues_swept()
{
    std::string left;
    tracer_.serve_until(
        [&] {
            if (!daemon_lives()) {
                left = "the daemon ended\n";
                return true;
            }
            left = Ledger::take(kStorage, daemon_).compared_with(before_);
            return left.empty();
        },
        kSweep);
    return left;
}
