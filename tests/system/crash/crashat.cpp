// crashat.cpp - kills a process of the system at each of its system calls, or makes each call fail,
// and checks the state of the system afterwards.
//
// usage: crashat kill|errno [--operation NAME] [--sample N] [--point N [--error K]] [--verbose]
//
// An operation is repeated. The first run counts its system calls; each further run injects a fault
// at one of them. Afterwards no process may hang or have crashed, create, start and delete must
// work with the same id, and nothing may be left. Without --sample every point is tried.
#include "crashat_calls.hpp"
#include "crashat_world.hpp"
#include "zncontainer.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/wait.h>

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr seconds kWatchdog(60);
// wait this long for a reply, then check whether one will come
constexpr milliseconds kPatience(400);

struct Options {
    bool errors = false;
    bool verbose = false;
    std::string operation;
    std::size_t sample = 0; // 0: all
    std::size_t point = 0;  // 0: all
    std::size_t error = 0;  // with a point: the index of the error to inject, from 1; 0: all
};

struct Operation {
    const char* name;
    Side side;
    bool running; // whether it needs a running container
    int (*act)();
    Complaint (World::*check)();
};

int result_of(bool good)
{
    return good ? 0 : 1;
}
int create()
{
    return result_of(zncCreate(kId, kShortBundle, 0, nullptr) == OK);
}
int start()
{
    return result_of(zncStart(kId, 0) > 0);
}
int kill_container()
{
    return result_of(zncKill(kId, 9, 0) == OK && zncKill(kId, 9, ZNC_OPT_WHOLE_NAMESPACE) == OK);
}
int remove_container()
{
    return result_of(zncDelete(kId, ZNC_OPT_WHOLE_NAMESPACE) == OK);
}
int unpack()
{
    return result_of(zncUnpack(kUnpacked, kImage, nullptr, 0, nullptr) == OK);
}
int flatten()
{
    return result_of(zncUnpack(kUnpacked, kImage, nullptr, ZNC_OPT_FLATTEN, nullptr) == OK);
}

constexpr std::array kOperations = {
    Operation{"create", Side::kDaemon, false, create, &World::check_containers},
    Operation{"start", Side::kDaemon, false, start, &World::check_containers},
    Operation{"kill", Side::kDaemon, true, kill_container, &World::check_containers},
    Operation{"delete", Side::kDaemon, true, remove_container, &World::check_containers},
    Operation{"boot", Side::kDaemon, true, nullptr, &World::check_containers},
    Operation{"create-client", Side::kClient, false, create, &World::check_containers},
    Operation{"start-client", Side::kClient, false, start, &World::check_containers},
    Operation{"kill-client", Side::kClient, true, kill_container, &World::check_containers},
    Operation{"delete-client", Side::kClient, true, remove_container, &World::check_containers},
    Operation{"unpack", Side::kClient, false, unpack, &World::check_images},
    Operation{"flatten", Side::kClient, false, flatten, &World::check_images},
};

// Runs an operation with a fault at one of its calls.
class Run {
  public:
    // `point` counts from 1; 0 injects no fault. `error` is the index in the call's errors, or the
    // process is killed.
    Run(World& world, const Operation& operation, std::size_t point,
        std::optional<std::size_t> error)
        : world_(world), operation_(operation), point_(point), error_(error)
    {
    }

    Complaint all();

    [[nodiscard]] std::size_t calls() const { return calls_; }
    [[nodiscard]] bool happened() const { return happened_; }
    [[nodiscard]] const std::string& what() const { return what_; }

  private:
    Fate judge(pid_t pid, long call);
    void watch();
    Complaint prepare();
    Complaint act();
    Complaint boot();
    Complaint await_answer(pid_t client);

    World& world_;
    const Operation& operation_;
    std::size_t point_;
    std::optional<std::size_t> error_;
    std::size_t calls_ = 0;
    bool runs_ = false;
    bool happened_ = false;
    pid_t victim_ = -1;
    std::string what_;
};

Fate Run::judge(pid_t pid, long call)
{
    // The first calls of the child are those of the driver, then those of the dynamic loader, which
    // kills itself if it gets no memory. The daemon's own calls begin with umask().
    if (operation_.act == nullptr && !runs_) {
        runs_ = call == SYS_umask;
        return {};
    }
    calls_++;
    if (calls_ != point_)
        return {};
    char name[64] = "";
    if (std::FILE* file = std::fopen(("/proc/" + std::to_string(pid) + "/comm").c_str(), "re")) {
        if (std::fgets(name, sizeof name, file) != nullptr)
            name[std::strcspn(name, "\n")] = '\0';
        std::fclose(file);
    }
    what_ = "call " + std::to_string(call) + " of " + name;
    if (!error_) {
        happened_ = true;
        victim_ = pid;
        return {true, 0};
    }
    const auto& errors = errors_of(call);
    if (*error_ >= errors.size())
        return {};
    happened_ = true;
    what_ += " fails with " + std::to_string(errors[*error_]);
    return {false, errors[*error_]};
}

void Run::watch()
{
    world_.tracer().watch(operation_.side,
                          [this](pid_t pid, long call) { return judge(pid, call); });
}

Complaint Run::prepare()
{
    if (operation_.running)
        return world_.start_long_container();
    if (operation_.act == start)
        return world_.run(create) == 0 ? "" : "the container cannot be created\n";
    return "";
}

// If the daemon lost a reply, its client waits for its own long timeout. To detect this case, check
// whether the daemon answers another client.
Complaint Run::await_answer(pid_t client)
{
    Tracer& tracer = world_.tracer();
    tracer.serve_until([&] { return tracer.status(client).has_value() || !world_.daemon_lives(); },
                       kPatience);
    if (tracer.status(client))
        return "";
    if (operation_.side == Side::kDaemon && !world_.daemon_lives()) {
        world_.kill(client);
        return "";
    }
    if (operation_.side == Side::kDaemon && happened_) {
        if (world_.run([] { return zncDaemonIsAlive() != FALSE ? 0 : 1; }) != 0 &&
            !world_.ended(world_.daemon(), kWatchdog)) // the daemon may have exited
            return "the daemon hangs\n";
        if (!world_.ended(client, kPatience))
            world_.kill(client);
        return "";
    }
    if (world_.ended(client, kWatchdog))
        return "";
    world_.kill(client);
    return "the call hangs\n";
}

Complaint Run::act()
{
    World::Client client = world_.client([act = operation_.act] {
        // The reported error must be an expected one.
        return std::freopen("/dev/null", "w", stdout) != nullptr ? act() : 1;
    });
    if (operation_.side == Side::kClient)
        world_.tracer().adopt(client.pid, Side::kClient);
    watch();
    World::let_go(client);
    const Complaint wrong = await_answer(client.pid);
    world_.tracer().watch_nothing();
    return wrong;
}

Complaint Run::boot()
{
    world_.kill_daemon();
    world_.launch_daemon([this](pid_t daemon) {
        world_.tracer().adopt(daemon, Side::kDaemon);
        watch();
    });
    const Complaint wrong = world_.await_daemon();
    world_.tracer().watch_nothing();
    // A daemon that cannot start reports this and exits. What it could not clean up is left to the
    // next one.
    const bool lives = world_.daemon_lives();
    if (lives && error_)
        world_.kill_daemon();
    return lives ? wrong : "";
}

Complaint Run::all()
{
    Complaint wrong = world_.ensure_daemon() + prepare();
    if (!wrong.empty())
        return wrong;
    wrong = operation_.act != nullptr ? act() : boot();
    if (victim_ > 0 && !world_.ended(victim_, kWatchdog))
        wrong += "a killed process does not end\n";
    if (operation_.side != Side::kDaemon && !world_.daemon_lives())
        wrong += "the daemon ended\n";
    wrong += world_.tracer().crashes();
    world_.tracer().forget_crashes();
    wrong += world_.ensure_daemon();
    if (operation_.check == &World::check_images) {
        wrong += world_.check_images();
    }
    wrong += world_.check_containers();
    return wrong + world_.check_nothing_left();
}

class Driver {
  public:
    Driver(World& world, const Options& options) : world_(world), options_(options) {}

    // Returns false if a check failed.
    bool all();

  private:
    bool operation(const Operation& operation);
    void at_point(const Operation& operation, std::size_t point, std::size_t& passed,
                  std::size_t& failed);
    bool once(const Operation& operation, std::size_t point, std::optional<std::size_t> error,
              std::size_t& passed, std::size_t& failed);

    World& world_;
    const Options& options_;
};

// Returns false if no fault was injected.
bool Driver::once(const Operation& operation, std::size_t point, std::optional<std::size_t> error,
                  std::size_t& passed, std::size_t& failed)
{
    Run run(world_, operation, point, error);
    const Complaint wrong = run.all();
    if (!run.happened() && wrong.empty())
        return false;
    (wrong.empty() ? passed : failed)++;
    if (!wrong.empty() || options_.verbose)
        std::printf("%s %s point %zu%s: %s\n%s", wrong.empty() ? "passed" : "FAILED",
                    operation.name, point,
                    error ? (" error " + std::to_string(*error + 1)).c_str() : "",
                    run.what().c_str(), wrong.c_str());
    std::fflush(stdout);
    if (!wrong.empty())
        world_.take_baseline();
    return true;
}

void Driver::at_point(const Operation& operation, std::size_t point, std::size_t& passed,
                      std::size_t& failed)
{
    if (!options_.errors) {
        once(operation, point, std::nullopt, passed, failed);
        return;
    }
    constexpr std::size_t kMost = 5;
    const std::size_t first = options_.error != 0 ? options_.error - 1 : 0;
    const std::size_t last = options_.error != 0 ? options_.error : kMost;
    // In a sample only one error is injected at each point, a different one each time.
    if (options_.sample != 0) {
        if (!once(operation, point, point % 3, passed, failed))
            once(operation, point, 0, passed, failed);
        return;
    }
    for (std::size_t error = first; error < last; error++)
        if (!once(operation, point, error, passed, failed))
            break;
}

bool Driver::operation(const Operation& operation)
{
    Run count(world_, operation, 0, std::nullopt);
    if (const Complaint wrong = count.all(); !wrong.empty()) {
        std::printf("FAILED %s without a fault\n%s", operation.name, wrong.c_str());
        return false;
    }
    // The number of calls varies between runs, so a few additional points are tried.
    constexpr std::size_t kMore = 5;
    const std::size_t points = count.calls() + kMore;
    std::size_t passed = 0;
    std::size_t failed = 0;
    if (options_.point != 0)
        at_point(operation, options_.point, passed, failed);
    const std::size_t tried = options_.sample != 0 ? std::min(options_.sample, points) : points;
    for (std::size_t i = 0; options_.point == 0 && i < tried; i++)
        at_point(operation, 1 + i * points / tried, passed, failed);
    if (const Complaint left = world_.check_queues_swept(); !left.empty()) {
        std::printf("FAILED %s: left in the end\n%s", operation.name, left.c_str());
        failed++;
    }
    std::printf("%s %s: %zu calls, %zu points passed, %zu failed\n",
                options_.errors ? "errno" : "kill", operation.name, count.calls(), passed, failed);
    std::fflush(stdout);
    return failed == 0 && passed > 0;
}

bool Driver::all()
{
    Complaint wrong = world_.ensure_daemon();
    wrong += world_.check_containers();
    wrong += world_.check_images();
    wrong += world_.check_containers();
    if (!wrong.empty()) {
        std::printf("FAILED before any fault\n%s", wrong.c_str());
        return false;
    }
    world_.take_baseline();
    bool good = true;
    bool found = false;
    for (const Operation& one : kOperations)
        if (options_.operation.empty() || options_.operation == one.name) {
            found = true;
            good = operation(one) && good;
        }
    return good && found;
}

bool parse(int argc, char** argv, Options& options)
{
    if (argc < 2 || (std::string(argv[1]) != "kill" && std::string(argv[1]) != "errno"))
        return false;
    options.errors = std::string(argv[1]) == "errno";
    for (int i = 2; i < argc; i++) {
        const std::string word = argv[i];
        if (word == "--verbose") {
            options.verbose = true;
            continue;
        }
        if (++i >= argc)
            return false;
        if (word == "--operation")
            options.operation = argv[i];
        else if (word == "--sample")
            options.sample = std::strtoul(argv[i], nullptr, 10);
        else if (word == "--point")
            options.point = std::strtoul(argv[i], nullptr, 10);
        else if (word == "--error")
            options.error = std::strtoul(argv[i], nullptr, 10);
        else
            return false;
    }
    if (std::getenv("ZNC_TEST_ALL") != nullptr)
        options.sample = 0;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parse(argc, argv, options)) {
        std::fputs("usage: crashat kill|errno [--operation NAME] [--sample N] "
                   "[--point N [--error K]] [--verbose]\n",
                   stderr);
        return 2;
    }
    const char* program = std::getenv("ZNCD");
    if (program == nullptr) {
        std::fputs("ZNCD does not name the daemon's program\n", stderr);
        return 2;
    }
#if !defined(__x86_64__) && !defined(__aarch64__)
    std::puts("skipped: the registers of this machine are not known to the driver");
    return 0;
#endif
    try {
        World world(program);
        return Driver(world, options).all() ? 0 : 1;
    } catch (const std::exception& wrong) {
        std::printf("FAILED: %s\n", wrong.what());
        return 1;
    }
}
