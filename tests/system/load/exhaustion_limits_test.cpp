// Tests in which descriptors, queue memory, processes, namespaces and mounts run out: the request
// fails with its error, the daemon survives, and nothing is left when resources are available
// again.

#include "layered_image.hpp"
#include "process_limit.hpp"
#include "system_world.hpp"

#include <fcntl.h>
#include <fstream>
#include <numeric>
#include <stdexcept>
#include <sys/resource.h>

using namespace system_world;

namespace {

constexpr const char* kLayout = "/tmp/layout";
constexpr const char* kUnpacked = "/tmp/unpacked";
constexpr rlim_t kLeast = 6; // the lowest descriptor limit that is tried
constexpr rlim_t kMost = 60;

// A system-wide sysctl that is restored however this test ends: a separate process waits for the
// end of the test and restores it.
class Setting {
  public:
    explicit Setting(std::string path) : path_(std::move(path))
    {
        std::ifstream(path_) >> usual_;
        if (usual_.empty() || ::pipe2(pipe_, O_CLOEXEC) != 0)
            throw std::runtime_error("cannot read " + path_);
        keeper_ = ::fork();
        if (keeper_ == 0) {
            ::setsid();
            ::close(pipe_[1]);
            char byte = 0;
            while (::read(pipe_[0], &byte, 1) > 0)
                write(usual_);
            write(usual_);
            ::_exit(0);
        }
        ::close(pipe_[0]);
    }
    ~Setting()
    {
        ::close(pipe_[1]);
        exit_code(keeper_);
    }
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;

    // Even root may not be permitted to change it.
    [[nodiscard]] bool can_be_changed() const { return write(usual_); }

    // Runs `body` while the setting is `value`.
    template <class Body> void while_it_is(const std::string& value, Body body) const
    {
        write(value);
        body();
        write(usual_);
    }

  private:
    bool write(const std::string& value) const
    {
        return static_cast<bool>(std::ofstream(path_) << value << std::flush);
    }

    std::string path_;
    std::string usual_;
    int pipe_[2] = {-1, -1};
    pid_t keeper_ = -1;
};

void limit_descriptors(pid_t pid, rlim_t count)
{
    struct rlimit limit = {};
    ::prlimit(pid, RLIMIT_NOFILE, nullptr, &limit);
    limit.rlim_cur = std::min(count, limit.rlim_max);
    if (::prlimit(pid, RLIMIT_NOFILE, &limit, nullptr) != 0)
        throw std::runtime_error("prlimit");
}

class Limits : public SystemWorld {
  protected:
    void before_daemon() override
    {
        layout::Layout(kLayout).add(layered_image::image_of(2, 3));
        ::setenv("ZNC_BASE", "/tmp/images", 1);
    }
    void after_daemon() override
    {
        fs::remove_all(kLayout);
        fs::remove_all("/tmp/images");
    }

    // Starts a container and stores its program in `program_`.
    void begin_running()
    {
        make_bundle(kBundle, {"/bin/sleep", "1000"});
        ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK) << std::hex << errno;
        // No client may query its state before its process exists: it would count as ended.
        int pipes[2];
        ASSERT_EQ(::pipe2(pipes, O_CLOEXEC), 0);
        client_ = begin_child([&] {
            const bool begun = zncStart("web", ZNC_OPT_NO_WAIT) == OK;
            if (!begun || ::write(pipes[1], "x", 1) != 1)
                return 2;
            return ::waitpid(-1, nullptr, 0) > 0 ? 0 : 3;
        });
        ::close(pipes[1]);
        char byte = 0;
        EXPECT_EQ(::read(pipes[0], &byte, 1), 1);
        ::close(pipes[0]);
    }
    // Removes container "web" in whatever state it is, and checks that a new one with this id
    // works.
    void clear_up()
    {
        if (zncStatusGet("web") != STATE_UNKNOWN &&
            zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE) != OK) {
            EXPECT_EQ(zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
        }
        if (client_ > 0)
            exit_code(client_);
        client_ = -1;
        expect_usable();
    }

  private:
    pid_t client_ = -1;
};

INSTANTIATE_TEST_SUITE_P(PlainAndOverlay, Limits, testing::Values(false, true), flavour_name);

// ------------------------------------------------------------------ descriptors

// Makes a call of the library; returns whether it succeeded.
struct Operation {
    const char* name;
    bool (*run)();
    bool running; // needs a running container
};

bool unpack()
{
    return zncUnpack(kUnpacked, kLayout, nullptr, 0, nullptr) == OK;
}

constexpr Operation kOperations[] = {
    {"unpack", unpack, false},
    {"image inspect", [] { return text_of(zncImageInfoGet(kLayout)) != "(none)"; }, false},
    {"create", [] { return zncCreate("web", "/tmp/bundle", 0, nullptr) == OK; }, false},
    {"list", [] { return text_of(zncList()) != "(none)"; }, true},
    {"state", [] { return text_of(zncState("web")) != "(none)"; }, true},
    {"inspect", [] { return text_of(zncContainerInfoGet("web")) != "(none)"; }, true},
    {"kill", [] { return zncKill("web", 9, ZNC_OPT_WHOLE_NAMESPACE) == OK; }, true},
    {"delete", [] { return zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE) == OK; }, true},
};

TEST_P(Limits, AClientWithFewDescriptorsGetsAnErrorOrItsResult)
{
    const auto most = static_cast<rlim_t>(size_of("EXHAUSTION_DESCRIPTORS", 20));
    std::map<std::string, int> failures;
    for (const Operation& operation : kOperations) {
        bool last = false;
        for (rlim_t limit = kLeast; limit <= most; limit++) {
            if (operation.running)
                begin_running();
            const int status = run_child([&] {
                limit_descriptors(0, limit);
                return operation.run() ? 0 : 1;
            });
            ASSERT_LT(status, 2) << operation.name << " " << limit;
            last = status == 0;
            failures[operation.name] += last ? 0 : 1;
            EXPECT_TRUE(zncDaemonIsAlive());
            if (fs::exists(kUnpacked)) {
                EXPECT_TRUE(last) << limit;
                EXPECT_TRUE(fs::exists(std::string(kUnpacked) + "/config.json")) << limit;
                EXPECT_EQ(zncImageBundleDelete(kUnpacked), OK);
            }
            if (overlay())
                for (const auto& device : fs::directory_iterator("/overlay"))
                    if (device.path().filename() != "web")
                        zncRemoveOvlRootfsDev(device.path().c_str());
            fs::remove_all("/tmp/images");
            clear_up();
        }
        EXPECT_TRUE(last) << operation.name;
        EXPECT_EQ(left_over(), "") << operation.name;
    }
    for (const auto& [name, count] : failures)
        std::printf("%s failed %d times\n", name.c_str(), count);
}

// Without any descriptor the daemon cannot answer and the client times out: for manual runs only.
TEST_P(Limits, ADaemonWithFewDescriptorsFailsTheRequestAndLives)
{
    const auto used = static_cast<rlim_t>(
        std::distance(fs::directory_iterator("/proc/" + std::to_string(daemon()) + "/fd"), {}));
    const auto most = static_cast<rlim_t>(size_of("EXHAUSTION_DESCRIPTORS", 36));
    const rlim_t least = most == kMost ? kLeast : used + 3;
    std::map<std::string, int> failures;
    for (const Operation& operation : kOperations) {
        if (operation.run == unpack || std::string(operation.name) == "image inspect")
            continue;
        bool last = false;
        for (rlim_t limit = least; limit <= most; limit++) {
            if (operation.running)
                begin_running();
            limit_descriptors(daemon(), limit);
            last = operation.run();
            limit_descriptors(daemon(), 1024);
            failures[operation.name] += last ? 0 : 1;
            EXPECT_TRUE(zncDaemonIsAlive());
            clear_up();
            EXPECT_EQ(left_over(), "") << operation.name << " " << limit;
        }
        EXPECT_TRUE(last) << operation.name;
    }
    for (const auto& [name, count] : failures)
        std::printf("%s failed %d times\n", name.c_str(), count);
}

TEST_P(Limits, WhenCreateGetsNoDescriptorsTheOtherRequestsStillDo)
{
    constexpr rlim_t kFew = 60;
    limit_descriptors(daemon(), kFew);
    int made = 0;
    std::string id;
    for (; made < 100; made++) {
        id = "c" + std::to_string(made);
        const std::string bundle = "/tmp/bundles/" + id;
        make_bundle(bundle, {"/bin/true"});
        if (zncCreate(id.c_str(), bundle.c_str(), 0, nullptr) != OK)
            break;
    }
    EXPECT_EQ(errno, S_zncLib_NAMESPACE_CREATE_FAILED) << std::hex << errno;
    EXPECT_GT(made, 5);
    EXPECT_LT(made, 30);
    std::printf("%d containers with %d descriptors\n", made, static_cast<int>(kFew));
    EXPECT_NE(text_of(zncList()).find("\"c0\""), std::string::npos);
    EXPECT_GT(zncStart("c0", 0), 0) << std::hex << errno;
    // A tree that is deeper than the descriptor limit.
    std::string deep = overlay() ? "/overlay/c1" : "/tmp/bundles/c1/rootfs";
    for (int i = 0; i < 100; i++)
        deep += "/d";
    fs::create_directories(deep);
    for (int i = 0; i < made; i++)
        EXPECT_EQ(zncDelete(("c" + std::to_string(i)).c_str(), 0), OK) << i << std::hex << errno;
    // What the failed create made is kept for the next one with its id.
    EXPECT_EQ(left_over(id), "");
    limit_descriptors(daemon(), 1024);
    EXPECT_EQ(zncCreate(id.c_str(), ("/tmp/bundles/" + id).c_str(), 0, nullptr), OK);
    EXPECT_EQ(zncDelete(id.c_str(), 0), OK);
    fs::remove_all("/tmp/bundles");
}

// ------------------------------------------------------------------ queues

TEST_P(Limits, AClientWithoutQueueMemoryGivesUpAndTheDaemonLives)
{
    begin_running();
    std::vector<pid_t> clients;
    for (const Operation& operation : kOperations)
        if (operation.running && std::string(operation.name) != "delete")
            clients.push_back(begin_child([&] {
                const struct rlimit none = {0, 0};
                ::setrlimit(RLIMIT_MSGQUEUE, &none);
                errno = 1;
                return !operation.run() && errno == 0 ? 0 : 1;
            }));
    for (const pid_t client : clients)
        EXPECT_EQ(exit_code(client), 0);
    EXPECT_TRUE(zncDaemonIsAlive());
    EXPECT_EQ(zncStatusGet("web"), STATE_RUNNING);
    clear_up();
}

// ------------------------------------------------------------------ processes

TEST_P(Limits, WithoutProcessesCreateAndStartFailAndNothingElse)
{
    const ProcessLimit limit;
    if (!limit.there())
        GTEST_SKIP() << "no control group for processes";
    limit.add(daemon());
    limit.set("1");
    EXPECT_EQ(zncCreate("web", kBundle, 0, nullptr), ERROR);
    EXPECT_EQ(errno, S_zncLib_NAMESPACE_CREATE_FAILED) << std::hex << errno;
    EXPECT_EQ(text_of(zncList()), "[]");
    limit.set("max");
    expect_usable();

    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    const int status = run_child([&] {
        limit.add(::getpid());
        limit.set("2"); // the daemon and its keeper already exceed this
        return zncStart("web", 0) == ERROR && errno == S_zncLib_RTP_SPAWN_FAILED ? 0 : 1;
    });
    limit.set("max");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(zncStatusGet("web"), STATE_STOPPED);
    clear_up();
}

// ------------------------------------------------------------------ namespaces and mounts

// These settings are system-wide: for some milliseconds they affect every process of the machine.
bool may_change_the_machine()
{
    return std::getenv("EXHAUSTION_MACHINE") != nullptr;
}
constexpr const char* kMachine = "changes settings of the whole machine: EXHAUSTION_MACHINE=1";

TEST_P(Limits, WithoutNamespacesOfAnyKindCreateFailsAndCanBeRepeated)
{
    if (!may_change_the_machine())
        GTEST_SKIP() << kMachine;
    for (const char* kind : {"mnt", "pid", "ipc", "uts", "cgroup"}) {
        const std::string path = "/proc/sys/user/max_" + std::string(kind) + "_namespaces";
        if (!Setting(path).can_be_changed())
            GTEST_SKIP() << path << " cannot be changed";
        STATUS created = OK;
        int number = 0;
        Setting(path).while_it_is("0", [&] {
            created = zncCreate("web", kBundle, 0, nullptr);
            number = errno;
        });
        EXPECT_EQ(created, ERROR) << kind;
        EXPECT_EQ(number, S_zncLib_NAMESPACE_CREATE_FAILED) << kind << std::hex << number;
        EXPECT_EQ(text_of(zncList()), "[]");
        expect_usable();
        EXPECT_EQ(left_over(), "") << kind;
    }
}

TEST_P(Limits, WithoutMountsCreateFailsAndCanBeRepeated)
{
    if (!may_change_the_machine())
        GTEST_SKIP() << kMachine;
    std::ifstream list("/proc/self/mountinfo");
    const long mounts = std::count(std::istreambuf_iterator<char>(list), {}, '\n');
    if (!Setting("/proc/sys/fs/mount-max").can_be_changed())
        GTEST_SKIP() << "fs.mount-max cannot be changed";
    // The mounts of a container and, for its overlay device, those of the host.
    std::vector<long> limits(30);
    std::iota(limits.begin(), limits.end(), 1);
    for (long more = 0; more < 10; more++)
        limits.push_back(mounts + more);
    int failed = 0;
    for (const long limit : limits) {
        STATUS created = OK;
        int number = 0;
        Setting("/proc/sys/fs/mount-max").while_it_is(std::to_string(limit), [&] {
            created = zncCreate("web", kBundle, 0, nullptr);
            number = errno;
        });
        if (created != OK) {
            failed++;
            EXPECT_TRUE(number == S_zncLib_ROOTFS_CREATE_FAILED ||
                        number == S_zncLib_NAMESPACE_CREATE_FAILED)
                << limit << std::hex << number;
        }
        clear_up();
        EXPECT_EQ(left_over(), "") << limit;
    }
    std::printf("%d creates without room for a mount\n", failed);
    EXPECT_GT(failed, 0);
}

} // namespace
