// End-to-end tests of containers: a real daemon, real namespaces, with and without overlay devices,
// and nothing left behind. Runs in a sandbox; with --no-overlay the daemon finds no /overlay and
// cannot create one.

#include "system_world.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <sys/wait.h>
#include <thread>

namespace fs = std::filesystem;

namespace {

constexpr const char* kBundle = "/tmp/bundle";
constexpr int kTerm = 15;
constexpr int kUsr1 = 30; // the library's number

std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs `call` with standard output redirected to a file and returns the output.
template <class Call> std::string output_of(Call call)
{
    std::fflush(stdout);
    const int keep = ::fcntl(1, F_DUPFD_CLOEXEC, 10);
    const int out = ::open("/tmp/stdout", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ::dup2(out, 1);
    call();
    std::fflush(stdout);
    ::dup2(keep, 1);
    ::close(keep);
    ::close(out);
    return read_file("/tmp/stdout");
}

using Text = std::unique_ptr<char, system_world::Free>;
Text take(char* text)
{
    return Text(text);
}

pid_t only_child()
{
    std::istringstream list(
        read_file("/proc/self/task/" + std::to_string(::getpid()) + "/children"));
    pid_t last = -1;
    for (pid_t pid = 0; list >> pid;)
        last = pid;
    return last;
}

class Containers : public system_world::SystemWorld {
  protected:
    void SetUp() override
    {
        SystemWorld::SetUp();
        make_bundle(kBundle, {"/bin/sh", "-c", "exit 3"});
    }
};

INSTANTIATE_TEST_SUITE_P(PlainAndOverlay, Containers, testing::Values(false, true),
                         system_world::flavour_name);

TEST_P(Containers, AHundredRoundsOfOneIdLeaveNothing)
{
    for (int i = 0; i < 100; i++) {
        ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK) << i << " " << std::hex << errno;
        ASSERT_GT(zncStart("web", 0), 0) << i << " " << std::hex << errno;
        ASSERT_EQ(zncDelete("web", 0), OK) << i << " " << std::hex << errno;
    }
}

TEST_P(Containers, StartWithoutWaitingReturnsOkAndTheProcessIsTheCallersChild)
{
    make_bundle(kBundle, {"/bin/sh", "-c", "exit 3"});
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    EXPECT_EQ(zncStatusGet("web"), STATE_CREATED);
    ASSERT_EQ(zncStart("web", ZNC_OPT_NO_WAIT), OK) << std::hex << errno;
    int status = 0;
    ASSERT_GT(::waitpid(-1, &status, 0), 0);
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(zncStatusGet("web"), STATE_STOPPED);
    EXPECT_EQ(zncStart("web", 0), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(zncDelete("web", 0), OK);
}

TEST_P(Containers, WaitingStartReturnsTheChildsId)
{
    make_bundle(kBundle, {"/bin/sh", "-c", "echo $$ > /tmp/pid; exit 0"});
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    EXPECT_GT(zncStart("web", 0), 1);
    EXPECT_EQ(zncDelete("web", 0), OK);
}

TEST_P(Containers, ProgramHasTheConfiguredDirectoryEnvironmentAndArguments)
{
    make_little_root(std::string(kBundle) + "/rootfs");
    std::ofstream(std::string(kBundle) + "/config.json")
        << R"({"ociVersion":"1.0.2","process":{"args":["busybox","sh","-c","pwd; echo $A; echo $0 $1; ls /","x","y"],
             "cwd":"/bin","env":["A=b c","PATH=/bin"]},"root":{"path":"rootfs"}})";
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    EXPECT_EQ(output_of([] { EXPECT_GT(zncStart("web", 0), 0) << std::hex << errno; }),
              "/bin\nb c\nx y\nbin\ndev\netc\nproc\nsys\ntmp\n");
    EXPECT_EQ(zncDelete("web", 0), OK);
}

TEST_P(Containers, KillSignalsTheStoredProcessByTheSystemsNumber)
{
    make_bundle(kBundle,
                {"/bin/sh", "-c", "trap 'exit 9' USR1; echo ready; while :; do sleep 0.05; done"});
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    EXPECT_EQ(zncKill("web", kUsr1, 0), OK); // created, not running: nothing is sent
    const std::string out = output_of([] {
        ASSERT_EQ(zncStart("web", ZNC_OPT_NO_WAIT), OK) << std::hex << errno;
        ASSERT_TRUE(
            eventually([] { return read_file("/tmp/stdout").find("ready") != std::string::npos; }));
    });
    EXPECT_EQ(out, "ready\n");
    EXPECT_EQ(zncStatusGet("web"), STATE_RUNNING);
    EXPECT_EQ(zncKill("web", kUsr1, 0), OK) << std::hex << errno;
    int status = 0;
    ASSERT_GT(::waitpid(-1, &status, 0), 0);
    EXPECT_EQ(WEXITSTATUS(status), 9);
    EXPECT_EQ(zncKill("web", kTerm, 0), OK); // stopped: nothing is sent
    EXPECT_EQ(zncDelete("web", 0), OK);
}

TEST_P(Containers, KillOfTheNamespaceReachesEveryProcess)
{
    make_bundle(kBundle, {"/bin/sh", "-c", "sleep 1000 & sleep 1000 & wait"});
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    ASSERT_EQ(zncStart("web", ZNC_OPT_NO_WAIT), OK);
    EXPECT_EQ(zncKill("web", kKill, ZNC_OPT_WHOLE_NAMESPACE), OK);
    int status = 0;
    ASSERT_GT(::waitpid(-1, &status, 0), 0);
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    ASSERT_TRUE(eventually([] { return zncStatusGet("web") != STATE_RUNNING; }));
    EXPECT_EQ(zncStatusGet("web"), STATE_STOPPED);
    EXPECT_EQ(zncDelete("web", 0), OK);
}

TEST_P(Containers, ARunningContainerIsDeletedOnlyByForce)
{
    make_bundle(kBundle, {"/bin/sh", "-c", "trap '' TERM INT HUP; while :; do sleep 1000; done"});
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    ASSERT_EQ(zncStart("web", ZNC_OPT_NO_WAIT), OK);
    EXPECT_EQ(zncDelete("web", 0), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
    EXPECT_EQ(zncStatusGet("web"), STATE_UNKNOWN);
    EXPECT_EQ(errno, ENODEV);
    int status = 0;
    ASSERT_GT(::waitpid(-1, &status, 0), 0);
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    zncDaemonIsAlive();
    // The id is free again; the keeper is reaped by the next request.
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    EXPECT_EQ(zncDelete("web", 0), OK);
}

TEST_P(Containers, AProgramThatCannotBeStartedGivesSpawnFailed)
{
    make_bundle(kBundle, {"/bin/none"});
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    EXPECT_EQ(zncStart("web", 0), ERROR);
    EXPECT_EQ(errno, S_zncLib_RTP_SPAWN_FAILED);
    EXPECT_EQ(zncStatusGet("web"), STATE_STOPPED);
    EXPECT_EQ(zncDelete("web", 0), OK);
}

TEST_P(Containers, ConfiguredMountsAreThereAndAFailingOneUndoesTheRest)
{
    fs::create_directories("/tmp/data");
    std::ofstream("/tmp/data/file") << "shared";
    make_bundle(
        kBundle, {"/bin/sh", "-c", "cat /mnt/file; ls /scratch"},
        R"(,"mounts":[{"source":"/tmp/data","destination":"/mnt","type":"bind","options":["ro"]},
                             {"source":"tmpfs","destination":"/scratch","type":"tmpfs"}])");
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK) << std::hex << errno;
    EXPECT_EQ(output_of([] { EXPECT_GT(zncStart("web", 0), 0); }), "shared");
    EXPECT_EQ(zncDelete("web", 0), OK);

    make_bundle(kBundle, {"/bin/true"},
                R"(,"mounts":[{"source":"/tmp/data","destination":"/mnt","type":"bind"},
                             {"source":"/tmp/none","destination":"/b","type":"bind"},
                             {"source":"tmpfs","destination":"/c","type":"tmpfs"}])");
    const std::string root = overlay() ? "/overlay/web" : std::string(kBundle) + "/rootfs";
    EXPECT_EQ(output_of([] {
                  EXPECT_EQ(zncCreate("web", kBundle, 0, nullptr), ERROR);
                  EXPECT_EQ(errno, S_zncLib_ADDITIONAL_MOUNT_FAILED);
              }),
              "Container additional mount failed for rootfs path: " + root +
                  " src: /tmp/none dest: /b.\n");
    EXPECT_EQ(zncStatusGet("web"), STATE_UNKNOWN);
    fs::remove_all("/tmp/data");
}

TEST_P(Containers, AFailedRootCanBeRepeatedUnderTheSameId)
{
    fs::rename(std::string(kBundle) + "/rootfs", std::string(kBundle) + "/away");
    EXPECT_EQ(zncCreate("web", kBundle, 0, nullptr), ERROR);
    EXPECT_EQ(errno, S_zncLib_ROOTFS_CREATE_FAILED);
    fs::rename(std::string(kBundle) + "/away", std::string(kBundle) + "/rootfs");
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK) << std::hex << errno;
    EXPECT_EQ(zncDelete("web", 0), OK);
}

TEST_P(Containers, OneBundleServesManyContainersOnTheOverlayAndOneWithout)
{
    make_bundle(kBundle, {"/bin/sh", "-c",
                          "cat /etc/mine 2>/dev/null; hostname > /etc/mine; cat /etc/mine"});
    ASSERT_EQ(zncCreate("one", kBundle, 0, nullptr), OK);
    if (!overlay()) {
        EXPECT_EQ(output_of([] {
                      EXPECT_EQ(zncCreate("two", kBundle, 0, nullptr), ERROR);
                      EXPECT_EQ(errno, S_zncLib_BUNDLE_IN_USE);
                  }),
                  "The bundle '/tmp/bundle' is already in use..\n");
    } else {
        ASSERT_EQ(zncCreate("two", kBundle, 0, nullptr), OK) << std::hex << errno;
        EXPECT_EQ(output_of([] { EXPECT_GT(zncStart("one", 0), 0); }), "one\n");
        EXPECT_EQ(output_of([] { EXPECT_GT(zncStart("two", 0), 0); }), "two\n");
        EXPECT_EQ(read_file("/overlay/one/etc/mine"), "one\n");
        EXPECT_EQ(read_file(std::string(kStorage) + "/containers/two/upper/etc/mine"), "two\n");
        EXPECT_FALSE(fs::exists(std::string(kBundle) + "/rootfs/etc/mine"));
        EXPECT_EQ(zncDelete("two", 0), OK);
    }
    EXPECT_EQ(zncDelete("one", 0), OK);
    fs::remove(std::string(kBundle) + "/rootfs/etc/mine");
}

TEST_P(Containers, HostileTreesOfContainersAreRemovedWithoutFollowingLinks)
{
    fs::create_directories("/tmp/outside");
    std::ofstream("/tmp/outside/precious") << "x";
    make_bundle(kBundle, {"/bin/sh", "-c",
                          "ln -s /tmp/outside /etc/out; ln -s . /etc/loop; ln -s "
                          "../../../../../../tmp/outside /etc/up"});
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    EXPECT_GT(zncStart("web", 0), 0);
    EXPECT_EQ(zncDelete("web", 0), OK);
    EXPECT_TRUE(fs::exists("/tmp/outside/precious"));
    fs::remove_all("/tmp/outside");
}

TEST_P(Containers, ListAndInspectDescribeEachContainer)
{
    const Text none = take(zncList());
    EXPECT_STREQ(none.get(), "[]");
    if (overlay()) {
        for (const char* id : {"b", "a", "c"})
            ASSERT_EQ(zncCreate(id, kBundle, 0, nullptr), OK);
        const Text list = take(zncList());
        EXPECT_STREQ(list.get(),
                     R"([{"ociVersion":"1.0.0","id":"a","status":1,"bundle":"/tmp/bundle"},)"
                     R"({"ociVersion":"1.0.0","id":"b","status":1,"bundle":"/tmp/bundle"},)"
                     R"({"ociVersion":"1.0.0","id":"c","status":1,"bundle":"/tmp/bundle"}])");
        for (const char* id : {"b", "a", "c"})
            ASSERT_EQ(zncDelete(id, 0), OK);
    }
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    const Text document = take(zncContainerInfoGet("web"));
    ASSERT_TRUE(document);
    const std::string text = document.get();
    for (const char* part : {"\"Id\":\t\"web\"", "\"Path\":\t\"/bin/sh\"",
                             "\"Platform\":\t\"zarnel\"", "\"Created\":\ttrue"})
        EXPECT_NE(text.find(part), std::string::npos) << part << text;
    EXPECT_EQ(zncDelete("web", 0), OK);
}

// Each client process uses its own ids; every call must succeed or fail as documented.
int client(int number, int rounds, bool overlay)
{
    const std::string id = "client" + std::to_string(number);
    const std::string bundle = overlay ? kBundle : "/tmp/bundles/" + std::to_string(number);
    for (int i = 0; i < rounds; i++) {
        if (zncCreate(id.c_str(), bundle.c_str(), 0, nullptr) != OK)
            return 10;
        if (zncCreate(id.c_str(), bundle.c_str(), 0, nullptr) != ERROR ||
            errno != S_zncLib_CONTAINER_EXISTS)
            return 11;
        const Text state = take(zncState(id.c_str()));
        if (!state || std::strstr(state.get(), id.c_str()) == nullptr)
            return 12;
        const Text list = take(zncList());
        if (!list || std::strstr(list.get(), ("\"" + id + "\"").c_str()) == nullptr)
            return 13;
        if (zncDelete(id.c_str(), 0) != OK)
            return 14;
        if (zncDelete(id.c_str(), 0) != ERROR || errno != ENODEV)
            return 15;
    }
    return 0;
}

TEST_P(Containers, SixteenClientProcessesAtOnceAreAllServed)
{
    constexpr int kClients = 16;
    constexpr int kRounds = 200;
    std::vector<pid_t> pids;
    for (int i = 0; i < kClients; i++) {
        if (!overlay())
            make_bundle("/tmp/bundles/" + std::to_string(i), {"/bin/true"});
        const pid_t pid = ::fork();
        if (pid == 0)
            ::_exit(client(i, kRounds, overlay()));
        pids.push_back(pid);
    }
    for (const pid_t pid : pids) {
        int status = -1;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0) << "step " << WEXITSTATUS(status);
    }
    EXPECT_TRUE(zncDaemonIsAlive());
    fs::remove_all("/tmp/bundles");
}

TEST_P(Containers, StoppingTheDaemonEndsEveryContainer)
{
    make_bundle(kBundle, {"/bin/sh", "-c", "trap '' TERM INT; while :; do sleep 1000; done"});
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    ASSERT_EQ(zncStart("web", ZNC_OPT_NO_WAIT), OK);
    const pid_t program = only_child();
    std::thread reaper([&] {
        int status = 0;
        EXPECT_EQ(::waitpid(program, &status, 0), program);
        EXPECT_EQ(WTERMSIG(status), SIGKILL);
    });
    EXPECT_EQ(daemon_->stop(SIGTERM), 0);
    reaper.join();
    daemon_.reset();
    EXPECT_FALSE(zncDaemonIsAlive());
    EXPECT_TRUE(!overlay() || fs::is_empty("/overlay"));
    EXPECT_TRUE(fs::is_empty("/run/zarnel/ns"));
}

TEST_P(Containers, AfterAKilledDaemonTheNextOneStartsCleanUnderTheSameIds)
{
    make_bundle(kBundle, {"/bin/sh", "-c", "sleep 1000"});
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    ASSERT_EQ(zncStart("web", ZNC_OPT_NO_WAIT), OK);
    EXPECT_EQ(daemon_->stop(SIGKILL), 128 + SIGKILL);
    int status = 0;
    ASSERT_GT(::waitpid(-1, &status, 0), 0); // the container died with its daemon
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    daemon_ = std::make_unique<DaemonProcess>(kStorage);
    EXPECT_EQ(zncStatusGet("web"), STATE_UNKNOWN);
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK) << std::hex << errno;
    EXPECT_EQ(zncDelete("web", 0), OK);
}

} // namespace
