// Tests of what a daemon finds when it starts and leaves when it stops: programs that were not
// reaped, failed creates, containers with many files, a full runtime directory.
#include "base/owned.hpp"
#include "daemon_world.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <vector>

namespace fs = std::filesystem;

using system_world::exit_code;
using system_world::text_of;

namespace {

constexpr int kMany = 50;
const std::string kTrash = "/tmp/storage/.trash";
const std::string kContainers = "/tmp/storage/containers";

std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

class DaemonEnds : public DaemonWorld {
  protected:
    // The children of this process except the daemon.
    static std::vector<pid_t> children()
    {
        const std::string self = std::to_string(::getpid());
        std::istringstream list(read_file("/proc/self/task/" + self + "/children"));
        std::vector<pid_t> found;
        for (pid_t child = 0; list >> child;)
            if (read_file("/proc/" + std::to_string(child) + "/comm") != "zncd\n")
                found.push_back(child);
        return found;
    }
    // Programs, each in its own container, that are children of this process, which does not reap
    // them.
    static std::vector<pid_t> start_many()
    {
        make_bundle(kBundle, {"/bin/sleep", "1000"});
        for (int i = 0; i < kMany; i++) {
            const std::string id = "many" + std::to_string(i);
            EXPECT_EQ(zncCreate(id.c_str(), kBundle, 0, nullptr), OK) << std::hex << errno;
            EXPECT_EQ(zncStart(id.c_str(), ZNC_OPT_NO_WAIT), OK) << std::hex << errno;
        }
        std::vector<pid_t> programs;
        // The kernel lists children reliably only while none of them ends, as a spawner does.
        EXPECT_TRUE(eventually([&] {
            programs = children();
            return programs.size() == kMany;
        })) << programs.size();
        return programs;
    }
    static void expect_killed(const std::vector<pid_t>& programs)
    {
        for (const pid_t program : programs)
            EXPECT_EQ(exit_code(program), 128 + SIGKILL);
    }
    // A container with this many files.
    static void make_large(const std::string& id, int files)
    {
        ASSERT_EQ(zncCreate(id.c_str(), kBundle, 0, nullptr), OK) << std::hex << errno;
        fs::create_directory("/overlay/" + id + "/data");
        for (int i = 0; i < files; i++)
            std::ofstream("/overlay/" + id + "/data/" + std::to_string(i)) << "x";
    }
    // Fails after its device was created: the program's path does not fit.
    static void fail_to_create(const std::string& id)
    {
        const std::string bundle = "/tmp/bundle/long";
        make_bundle(bundle, {"/" + std::string(1022, 'x')});
        EXPECT_EQ(zncCreate(id.c_str(), bundle.c_str(), 0, nullptr), ERROR);
        EXPECT_EQ(errno, S_zncLib_OCI_ARG_INVALID);
    }
};

// ---------------------------------------------------------------- users of a container

TEST_F(DaemonEnds, APlainUserOfAContainerCannotRenameWhatIsInItsRoot)
{
    make_bundle(kBundle, {"/bin/busybox", "su", "-s", "/bin/sh", "user", "-c",
                          "test $(id -u) = 1000 || exit 3; mv /bin /mine 2>/dev/null && exit 4; "
                          "touch /new 2>/dev/null && exit 5; exit 0"});
    std::ofstream(std::string(kBundle) + "/rootfs/etc/passwd")
        << "root:x:0:0::/:/bin/sh\nuser:x:1000:1000::/:/bin/sh\n";
    std::ofstream(std::string(kBundle) + "/rootfs/etc/group") << "root:x:0:\nuser:x:1000:\n";
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK) << std::hex << errno;
    ASSERT_EQ(zncStart("web", ZNC_OPT_NO_WAIT), OK) << std::hex << errno;
    int status = -1;
    pid_t ended = -1;
    while ((ended = ::waitpid(-1, &status, 0)) == daemon() || (ended < 0 && errno == EINTR)) {
    }
    EXPECT_EQ(WEXITSTATUS(status), 0) << "3: not that user, 4: renamed, 5: made";
    EXPECT_EQ(zncDelete("web", 0), OK);
}

// ---------------------------------------------------------------- programs nobody waits for

TEST_F(DaemonEnds, ARestartWithUnreapedProgramsServes)
{
    const std::vector<pid_t> programs = start_many();
    EXPECT_EQ(stop_daemon(SIGKILL), 128 + SIGKILL);
    start_daemon();
    EXPECT_EQ(text_of(zncList()), "[]");
    expect_usable();
    expect_killed(programs);
    settle();
}

TEST_F(DaemonEnds, AStopEndsAllUnreapedPrograms)
{
    const std::vector<pid_t> programs = start_many();
    EXPECT_EQ(stop_daemon(SIGTERM), 0);
    for (const pid_t program : programs)
        EXPECT_TRUE(eventually([program] {
            return read_file("/proc/" + std::to_string(program) + "/stat").find(") Z ") !=
                   std::string::npos;
        }));
    EXPECT_TRUE(fs::is_empty("/overlay"));
    EXPECT_TRUE(fs::is_empty(kContainers));
    expect_killed(programs);
    start_daemon();
    settle();
}

// ---------------------------------------------------------------- creates that failed

TEST_F(DaemonEnds, ACleanStopRemovesWhatAFailedCreateLeftAndNoImagesDevice)
{
    fail_to_create("failed");
    const char* lower = "/tmp/bundle/rootfs";
    ASSERT_EQ(zncCreateOvlRootfsDev("/overlay/image", &lower, 1, FALSE), OK);
    ASSERT_TRUE(fs::exists("/overlay/failed"));
    EXPECT_EQ(stop_daemon(SIGTERM), 0);
    EXPECT_FALSE(fs::exists("/overlay/failed"));
    EXPECT_TRUE(fs::is_empty(kContainers));
    EXPECT_TRUE(fs::exists("/overlay/image/bin/busybox"));
    start_daemon();
    EXPECT_TRUE(fs::exists("/overlay/image/bin/busybox"));
    EXPECT_EQ(zncRemoveOvlRootfsDev("/overlay/image"), OK);
    settle();
}

TEST_F(DaemonEnds, AStartRemovesWhatAFailedCreateOfADeadDaemonLeft)
{
    fail_to_create("failed");
    EXPECT_EQ(stop_daemon(SIGKILL), 128 + SIGKILL);
    ASSERT_TRUE(fs::exists("/overlay/failed"));
    start_daemon();
    EXPECT_FALSE(fs::exists("/overlay/failed"));
    EXPECT_TRUE(fs::is_empty(kContainers));
    expect_usable(); // the first container makes the daemon keep its helper open
    settle();
}

// ---------------------------------------------------------------- many files

TEST_F(DaemonEnds, WhileManyFilesAreDeletedTheIdIsFreeAndOthersAreServed)
{
    make_large("web", 20000);
    EXPECT_EQ(zncDelete("web", 0), OK) << std::hex << errno;
    EXPECT_FALSE(fs::exists(kContainers + "/web"));
    expect_usable(); // with the same id
    EXPECT_TRUE(eventually([] { return !fs::exists(kTrash); }));
}

TEST_F(DaemonEnds, TheNextDaemonDeletesWhatAKilledOneHadNotDeletedYet)
{
    make_large("web", 20000);
    make_large("other", 1000);
    EXPECT_EQ(zncDelete("web", 0), OK);
    EXPECT_EQ(stop_daemon(SIGKILL), 128 + SIGKILL); // even with a container that was not deleted
    start_daemon();
    EXPECT_TRUE(fs::is_empty(kContainers));
    EXPECT_TRUE(eventually([] { return !fs::exists(kTrash); }));
    expect_usable();
    settle(); // descriptor numbers differ in another daemon
}

// ---------------------------------------------------------------- locks and full disks

TEST_F(DaemonEnds, ADeviceThatWasLockedWhenItsContainerWasDeletedIsDetachedLater)
{
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    znc::UniqueFd other(::open("/overlay", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
    EXPECT_EQ(zncDelete("web", 0), OK) << std::hex << errno;
    EXPECT_TRUE(fs::exists("/overlay/web"));
    other.reset();
    EXPECT_TRUE(eventually([] { return !fs::exists("/overlay/web"); }));
    expect_usable();
}

TEST_F(DaemonEnds, AFullRuntimeDirectoryKeepsNoDaemonFromStarting)
{
    EXPECT_EQ(stop_daemon(SIGTERM), 0);
    for (const char* size : {"size=4k,nr_inodes=1,mode=700", "size=4k,nr_inodes=2,mode=700",
                             "size=4k,nr_inodes=3,mode=700"}) {
        ASSERT_EQ(::mount("tmpfs", "/run/zarnel", "tmpfs", 0, size), 0);
        start_daemon();
        EXPECT_TRUE(zncDaemonIsAlive()) << size;
        EXPECT_EQ(zncCreate("web", kBundle, 0, nullptr), ERROR) << size;
        EXPECT_EQ(errno, S_zncLib_ROOTFS_CREATE_FAILED);
        EXPECT_EQ(text_of(zncList()), "[]");
        EXPECT_EQ(stop_daemon(SIGTERM), 0) << size;
        EXPECT_TRUE(fs::is_empty("/overlay"));
        EXPECT_EQ(::umount("/run/zarnel"), 0);
    }
    start_daemon();
    expect_usable(); // the first container makes the daemon keep its helper open
    settle();
}

TEST_F(DaemonEnds, OnADiskWithoutSpaceTheDaemonStartsAndContainersAreRefusedOrWork)
{
    EXPECT_EQ(stop_daemon(SIGTERM), 0);
    ASSERT_EQ(::mount("tmpfs", "/run/zarnel", "tmpfs", 0, "size=64k,mode=700"), 0);
    std::ofstream("/run/zarnel/full") << std::string(65536, 'x');
    start_daemon();
    EXPECT_TRUE(zncDaemonIsAlive());
    EXPECT_EQ(read_file("/run/zarnel/zncd.lock"), "") << "no half of a number";
    EXPECT_FALSE(fs::exists("/run/zarnel/zncd.info"));
    EXPECT_EQ(zncCreate("web", kBundle, 0, nullptr), ERROR);
    EXPECT_TRUE(fs::is_empty("/run/zarnel/ns"));
    fs::remove("/run/zarnel/full");
    expect_usable();
    EXPECT_EQ(stop_daemon(SIGTERM), 0);
    EXPECT_EQ(::umount("/run/zarnel"), 0);
    start_daemon();
    settle();
}

} // namespace
