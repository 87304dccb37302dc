// Tests of what a container, its image, a stuck keeper or an unusual caller can do to the namespace
// service and the spawner.

#include "namespace_world.hpp"
#include "zarnel/overlay.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <linux/capability.h>
#include <linux/securebits.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <thread>

using namespace namespace_world;

namespace {

pid_t keeper_of(nsid_t ns)
{
    std::istringstream record(read_file("/run/zarnel/ns/" + std::to_string(ns)));
    pid_t keeper = -1;
    record >> keeper;
    EXPECT_GT(keeper, 1);
    return keeper;
}

// Runs `call` in a process with root's user id and no capabilities, as in a container, and returns
// its exit status.
template <class Call> int without_capabilities(Call call)
{
    const pid_t child = ::fork();
    if (child == 0) {
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct sets[2] = {};
        if (::syscall(SYS_capset, &header, sets) != 0)
            ::_exit(99);
        ::_exit(call());
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Sends this process a signal every millisecond to interrupt blocking calls.
class SignalStorm {
  public:
    SignalStorm()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        ::sigaction(SIGALRM, &action, &old_);
        const itimerval often = {{0, 1000}, {0, 1000}};
        ::setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~SignalStorm()
    {
        const itimerval never = {};
        ::setitimer(ITIMER_REAL, &never, nullptr);
        ::sigaction(SIGALRM, &old_, nullptr);
    }
    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;

  private:
    struct sigaction old_ = {};
};

class DescriptorLimit {
  public:
    explicit DescriptorLimit(rlim_t most)
    {
        ::getrlimit(RLIMIT_NOFILE, &old_);
        const rlimit less = {most, old_.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &less);
    }
    ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &old_); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

  private:
    rlimit old_ = {};
};

// ---------------------------------------------------------------- the keeper

TEST_F(Namespaces, RootWithoutCapabilitiesCannotLookIntoOrLimitTheKeeper)
{
    const nsid_t ns = rooted();
    const pid_t keeper = keeper_of(ns);
    const std::string dir = "/proc/" + std::to_string(keeper);
    EXPECT_EQ(without_capabilities([&] {
                  rlimit none = {0, 0};
                  return ::prlimit(keeper, RLIMIT_NOFILE, &none, nullptr) == 0 ? 0 : errno;
              }),
              EPERM);
    EXPECT_EQ(without_capabilities([&] {
                  return ::open((dir + "/mem").c_str(), O_RDONLY | O_CLOEXEC) >= 0 ? 0 : errno;
              }),
              EACCES);
    for (const char* link : {"/exe", "/root", "/cwd", "/fd/0", "/ns/mnt"})
        EXPECT_EQ(without_capabilities([&] {
                      char text[64];
                      return ::readlink((dir + link).c_str(), text, sizeof text) >= 0 ? 0 : errno;
                  }),
                  EACCES)
            << link;
    EXPECT_FALSE(in_use(ns));
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, KillDoesNotReachTheKeeper)
{
    const nsid_t ns = rooted();
    errno = 0;
    EXPECT_EQ(znnsProcessKill(ns, keeper_of(ns), kTerm), ERROR);
    EXPECT_EQ(errno, ESRCH);
    run(ns, "kill -9 1; kill -STOP 1");
    EXPECT_EQ(run(ns, "echo alive"), "alive\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, InUseDoesNotAskTheKeeperAgainWhileAProcessLives)
{
    const nsid_t ns = rooted();
    const pid_t keeper = keeper_of(ns);
    const pid_t first = start(ns, "read line < /dev/ptmx");
    const pid_t second = start(ns, "read line < /dev/ptmx");
    ASSERT_GT(first, 0);
    ASSERT_GT(second, 0);
    EXPECT_TRUE(in_use(ns));
    ASSERT_EQ(::kill(keeper, SIGSTOP), 0);
    EXPECT_TRUE(in_use(ns)) << "a stopped keeper cannot answer";
    ASSERT_EQ(::kill(keeper, SIGCONT), 0);
    ::kill(first, SIGKILL);
    wait(first);
    EXPECT_TRUE(in_use(ns)) << "the second one lives";
    ::kill(second, SIGKILL);
    wait(second);
    EXPECT_FALSE(in_use(ns));
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, AKeeperThatDoesNotAnswerIsKilledAlsoWhileSignalsArrive)
{
    const nsid_t ns = rooted();
    ASSERT_EQ(::kill(keeper_of(ns), SIGSTOP), 0);
    const SignalStorm storm;
    BOOL used = FALSE;
    EXPECT_EQ(znnsInUse(ns, &used), ERROR);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(znnsInUse(ns, &used), OK);
    EXPECT_FALSE(used);
    // The keeper has been killed and is dead a moment later; until then a program may still enter.
    pid_t pid;
    while ((pid = start(ns, "true")) > 0)
        wait(pid);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, RoundsUnderASignalStormLeaveNothing)
{
    const SignalStorm storm;
    for (int i = 0; i < 30; i++) {
        const nsid_t ns = rooted();
        const pid_t pid = start(ns, "exit 5");
        ASSERT_GT(pid, 0) << std::strerror(errno);
        int status = -1;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        EXPECT_EQ(WEXITSTATUS(status), 5);
        ASSERT_EQ(znnsDelete(ns), OK);
    }
}

TEST_F(Namespaces, ASecondRootIsRefusedAndChangesNothing)
{
    fs::create_directories("/overlay/web");
    ASSERT_EQ(::mount("none", "/overlay/web", "tmpfs", 0, nullptr), 0);
    const nsid_t ns = rooted();
    EXPECT_EQ(znnsRootfsCreate(ns, "/overlay/web", "web"), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(run(ns, "echo alive"), "alive\n");
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_EQ(::umount("/overlay/web"), 0);
    fs::remove("/overlay/web");

    // The converse: the namespace keeps its own device and removes it at the end.
    fs::create_directories("/tmp/out.d/upper");
    const std::array<const char*, 2> dirs = {"/tmp/out.d/upper", root_.c_str()};
    ASSERT_EQ(znOvlDevCreate("/overlay/db", dirs.data(), 2, TRUE), OK) << std::strerror(errno);
    const nsid_t other = znnsCreate(kFlags);
    ASSERT_EQ(znnsRootfsCreate(other, "/overlay/db", "db"), OK) << std::strerror(errno);
    EXPECT_EQ(znnsRootfsCreate(other, root_.c_str(), "db"), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(znnsDelete(other), OK);
    EXPECT_FALSE(fs::exists("/overlay/db"));
    fs::remove_all("/tmp/out.d");
}

TEST_F(Namespaces, WithoutFreeDescriptorsCallsFailWithTheReasonAndLeaveNothing)
{
    for (rlim_t most = 3; most < 40; most++) {
        nsid_t ns = -1;
        int error = 0;
        {
            const DescriptorLimit limit(most);
            ns = znnsCreate(kFlags);
            error = errno;
            if (ns >= 0 && znnsRootfsCreate(ns, root_.c_str(), "web") != OK) {
                error = errno;
                ns = -1;
            }
        }
        if (ns < 0) {
            EXPECT_EQ(error, EMFILE) << most;
            continue;
        }
        znSpawnAttr attr;
        znSpawnAttrInit(&attr);
        znSpawnAttrSetNamespace(&attr, ns);
        std::array<char*, 2> argv = {const_cast<char*>("true"), nullptr};
        pid_t pid = -1;
        const std::string program = root_ + "/bin/true";
        STATUS spawned = ERROR;
        {
            const DescriptorLimit limit(most);
            spawned = znSpawn(&pid, program.c_str(), &attr, argv.data(), nullptr);
            error = errno;
        }
        if (spawned == OK)
            wait(pid);
        else
            EXPECT_EQ(error, EMFILE) << most;
        EXPECT_EQ(znnsDelete(ns), OK);
    }
}

// ---------------------------------------------------------------- mounts

TEST_F(Namespaces, UnmountSucceedsIfThePathNoLongerLeadsToTheMount)
{
    fs::create_directories("/tmp/data");
    const nsid_t ns = rooted();
    ASSERT_EQ(mount(ns, "/tmp/data", "/a/b", "bind", {}), OK);
    run(ns, "mkdir -p /a/b/c/b && mv /a /moved && ln -s /moved/b/c /a");
    EXPECT_EQ(exit_, 0);
    EXPECT_EQ(znnsUmount(ns, "", "/tmp/data", "/a/b", "bind", nullptr), OK) << std::strerror(errno);
    EXPECT_EQ(znnsDelete(ns), OK);
    fs::remove_all("/tmp/data");
}

TEST_F(Namespaces, TheRootItselfIsNoMountPointHoweverItIsNamed)
{
    fs::create_directories("/tmp/data");
    fs::create_directory_symlink("/", root_ + "/root");
    fs::create_directory_symlink("..", root_ + "/up");
    const nsid_t ns = rooted();
    for (const char* destination : {"/", "//", "/.", "/..", "/etc/..", "/root", "/up", "up", "."}) {
        errno = 0;
        EXPECT_EQ(mount(ns, "/tmp/data", destination, "bind", {}), ERROR) << destination;
        EXPECT_EQ(errno, EINVAL) << destination;
    }
    EXPECT_EQ(run(ns, "ls /bin/sh"), "/bin/sh\n");
    EXPECT_EQ(znnsDelete(ns), OK);
    fs::remove_all("/tmp/data");
}

TEST_F(Namespaces, NothingIsMountedBeforeThereIsARoot)
{
    fs::create_directories("/tmp/data");
    const nsid_t ns = znnsCreate(kFlags);
    errno = 0;
    EXPECT_EQ(mount(ns, "/tmp/data", "/tmp/made/here", "bind", {}), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(fs::exists("/tmp/made"));
    EXPECT_EQ(znnsDelete(ns), OK);
    fs::remove_all("/tmp/data");
}

TEST_F(Namespaces, ARelativeDestinationIsTakenFromTheRoot)
{
    std::ofstream("/tmp/one") << "1";
    fs::create_directories("/tmp/data");
    const nsid_t ns = rooted();
    EXPECT_EQ(mount(ns, "/tmp/one", "one", "bind", {}), OK) << std::strerror(errno);
    EXPECT_EQ(mount(ns, "/tmp/one", "x/y/one", "bind", {}), OK) << std::strerror(errno);
    EXPECT_EQ(mount(ns, "/tmp/data", "data/", "bind", {}), OK) << std::strerror(errno);
    EXPECT_EQ(run(ns, "cat /one /x/y/one"), "11");
    EXPECT_NE(run(ns, "grep ' /data ' /proc/self/mountinfo"), "");
    EXPECT_EQ(znnsUmount(ns, "", "/tmp/data", "data/", "bind", nullptr), OK);
    EXPECT_EQ(znnsUmount(ns, "", "/tmp/one", "x/y/one", "bind", nullptr), OK);
    EXPECT_EQ(znnsUmount(ns, "", "/tmp/one", "one", "bind", nullptr), OK);
    EXPECT_EQ(run(ns, "cat /one /x/y/one; grep -E ' /(data|one|x)' /proc/self/mountinfo"), "");
    EXPECT_EQ(znnsDelete(ns), OK);
    fs::remove_all("/tmp/data");
}

TEST_F(Namespaces, MountPointOfADanglingLinkIsCreatedInsideTheRoot)
{
    const struct {
        const char* link;
        const char* target;
        const char* made; // the mount point created inside the root
    } cases[] = {{"etc/relative", "../run/resolve/relative", "run/resolve/relative"},
                 {"etc/absolute", "/nowhere/deep/absolute", "nowhere/deep/absolute"},
                 {"etc/above", "../../../../../../tmp/made/above", "tmp/made/above"},
                 {"etc/one", "two", "chain/two"},
                 {"etc/two", "/chain/./x/../two", "chain/two"},
                 {"var", "private//var/", nullptr}};
    std::ofstream("/tmp/one") << "1";
    for (const auto& one : cases)
        fs::create_symlink(one.target, root_ + "/" + one.link);
    const nsid_t ns = rooted();
    for (const auto& one : cases) {
        if (one.made == nullptr)
            continue;
        const std::string point = std::string("/") + one.link;
        EXPECT_EQ(mount(ns, "/tmp/one", point.c_str(), "bind", {}), OK)
            << point << ": " << std::strerror(errno);
        EXPECT_EQ(run(ns, "cat " + point + " /" + one.made), "11") << point;
        EXPECT_TRUE(fs::is_regular_file(root_ + "/" + one.made)) << point;
    }
    EXPECT_EQ(mount(ns, "/tmp", "/var/lib/data", "bind", {}), OK) << std::strerror(errno);
    EXPECT_TRUE(fs::is_directory(root_ + "/private/var/lib/data"));
    EXPECT_FALSE(fs::exists("/nowhere"));
    EXPECT_FALSE(fs::exists("/tmp/made"));
    EXPECT_EQ(znnsDelete(ns), OK);
    fs::remove("/tmp/one");
}

TEST_F(Namespaces, LinksInARingOrIntoProcAreNoMountPoints)
{
    std::ofstream("/tmp/one") << "1";
    fs::create_symlink("ring-b", root_ + "/etc/ring-a");
    fs::create_symlink("ring-a", root_ + "/etc/ring-b");
    fs::create_symlink("/proc/1/none", root_ + "/etc/in-proc");
    fs::create_symlink("/proc/self/root/tmp/none", root_ + "/etc/through-proc");
    fs::create_symlink("/bin/sh/none", root_ + "/etc/below-file");
    const nsid_t ns = rooted();
    for (const char* point :
         {"/etc/ring-a", "/etc/in-proc", "/etc/through-proc", "/etc/below-file"}) {
        EXPECT_EQ(mount(ns, "/tmp/one", point, "bind", {}), ERROR) << point;
        EXPECT_EQ(mount(ns, "/tmp", point, "bind", {}), ERROR) << point;
    }
    EXPECT_FALSE(fs::exists("/tmp/none"));
    EXPECT_EQ(znnsDelete(ns), OK);
    fs::remove("/tmp/one");
}

TEST_F(Namespaces, AMountPointIsMadeInsideWhileTheWayToItChanges)
{
    fs::create_directories("/tmp/outside");
    fs::create_directories("/tmp/data");
    fs::create_directories(root_ + "/a/b");
    fs::create_directory_symlink("../../../../../tmp/outside", root_ + "/a/c");
    std::atomic<bool> done{false};
    std::thread exchanger([&] {
        const std::string one = root_ + "/a/b";
        const std::string other = root_ + "/a/c";
        while (!done)
            ::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
    });
    const nsid_t ns = rooted();
    int made = 0;
    for (int i = 0; i < 300; i++) {
        const std::string point = "/a/b/x" + std::to_string(i) + "/y";
        made += mount(ns, "/tmp/data", point.c_str(), "bind", {}) == OK ? 1 : 0;
    }
    done = true;
    exchanger.join();
    EXPECT_GT(made, 0);
    EXPECT_TRUE(fs::is_empty("/tmp/outside"));
    EXPECT_TRUE(fs::is_empty("/tmp/data"));
    EXPECT_EQ(znnsDelete(ns), OK);
    fs::remove_all("/tmp/outside");
    fs::remove_all("/tmp/data");
}

TEST_F(Namespaces, ARelativeSourceIsNotBoundFromWhereverTheOwnerIs)
{
    fs::create_directories("/tmp/data");
    const fs::path before = fs::current_path();
    fs::current_path("/tmp");
    const nsid_t ns = rooted();
    for (const char* type : {"bind", "unknown", ""})
        for (const char* source : {"data", "./data", "none"}) {
            errno = 0;
            EXPECT_EQ(mount(ns, source, "/data", type, {}), ERROR) << type << source;
            EXPECT_EQ(errno, EINVAL) << type << source;
        }
    // the source of a tmpfs is only a name
    EXPECT_EQ(mount(ns, "data", "/scratch", "tmpfs", {}), OK);
    EXPECT_FALSE(fs::exists(root_ + "/data"));
    EXPECT_EQ(znnsDelete(ns), OK);
    fs::current_path(before);
    fs::remove_all("/tmp/data");
}

// ---------------------------------------------------------------- the spawner

TEST_F(Namespaces, ProgramCannotUseUpTheQueueMemoryThatItSharesWithTheDaemonsClients)
{
    const nsid_t ns = rooted();
    rlimit own = {};
    ASSERT_EQ(::getrlimit(RLIMIT_MSGQUEUE, &own), 0);
    std::istringstream line(run(ns, "exec grep 'Max msgqueue size' /proc/self/limits"));
    std::string word;
    rlim_t soft = 0;
    rlim_t hard = 0;
    line >> word >> word >> word >> soft >> hard;
    EXPECT_GT(soft, 0U);
    EXPECT_EQ(soft, hard);
    EXPECT_LE(soft, own.rlim_cur / 2);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, AStreamThatIsClosedOnExecIsTheNullDeviceInside)
{
    const nsid_t ns = rooted();
    const int flags = ::fcntl(0, F_GETFD);
    const znc::UniqueFd secret(::open("/etc/hostname", O_RDONLY | O_CLOEXEC));
    const znc::UniqueFd keep(::fcntl(0, F_DUPFD_CLOEXEC, 10));
    ::dup3(secret.get(), 0, O_CLOEXEC);
    EXPECT_EQ(run(ns, "stat -L -c %t:%T /proc/self/fd/0"), "1:3\n");
    ::dup2(keep.get(), 0);
    ::fcntl(0, F_SETFD, flags);
    EXPECT_EQ(znnsDelete(ns), OK);
}

// The device and inode of a file, as "stat -c '%d %i'" prints them.
std::string identity_of(const char* path)
{
    struct stat st = {};
    EXPECT_EQ(::stat(path, &st), 0) << path;
    return std::to_string(st.st_dev) + " " + std::to_string(st.st_ino) + "\n";
}

// Returns what a program finds as its standard input if the caller's is the null device.
constexpr const char* kIdentifyInput = "stat -L -c '%d %i' /proc/self/fd/0";

TEST_F(Namespaces, AStreamThatIsTheNullDeviceIsTheContainersOwnInside)
{
    const nsid_t ns = rooted();
    const znc::UniqueFd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const znc::UniqueFd keep(::fcntl(0, F_DUPFD_CLOEXEC, 10));
    ::dup2(null.get(), 0);
    const std::string stream = run(ns, kIdentifyInput);
    const std::string device = run(ns, "stat -c '%d %i' /dev/null");
    ::dup2(keep.get(), 0);
    EXPECT_EQ(stream, device);
    EXPECT_NE(stream, identity_of("/dev/null"));
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, WithoutADevANullStreamIsADeviceOfItsOwnAndTheHostsKeepsItsMode)
{
    fs::remove(root_ + "/dev");
    const nsid_t ns = rooted();
    struct stat before = {};
    ASSERT_EQ(::stat("/dev/null", &before), 0);
    closeInput_ = true;
    const std::string stream = run(ns, kIdentifyInput);
    // otherwise the next command would change the host's device
    ASSERT_NE(stream, identity_of("/dev/null"));
    EXPECT_EQ(run(ns, "chmod 600 /proc/self/fd/0 && chown 7:7 /proc/self/fd/0 && "
                      "echo x > /proc/self/fd/0 && cat && stat -L -c %t:%T:%a /proc/self/fd/0"),
              "1:3:600\n");
    struct stat after = {};
    ASSERT_EQ(::stat("/dev/null", &after), 0);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, ADevNullOfTheImageOnADeviceFreeRootIsNotTaken)
{
    // Not a directory, so that nothing is mounted on it, but a link to a file of the image.
    fs::remove(root_ + "/dev");
    fs::create_directories(root_ + "/etc/dev");
    std::ofstream(root_ + "/etc/dev/null") << "a fake";
    fs::create_directory_symlink("etc/dev", root_ + "/dev");
    const nsid_t ns = rooted();
    closeInput_ = true;
    EXPECT_EQ(run(ns, "stat -L -c %t:%T /proc/self/fd/0"), "1:3\n");
    EXPECT_EQ(run(ns, "cat; echo end"), "end\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

// Attributes that survive fork and exec and are not standard streams, the signal mask or limits.
void burden_self()
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    const sched_param none = {};
    ::sched_setaffinity(0, sizeof one, &one);
    ::sched_setscheduler(0, SCHED_BATCH | SCHED_RESET_ON_FORK, &none);
    ::personality(ADDR_NO_RANDOMIZE | READ_IMPLIES_EXEC);
    ::prctl(PR_SET_TIMERSLACK, 1000000);
    ::prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
    ::prctl(PR_SET_SECUREBITS, SECBIT_NO_SETUID_FIXUP);
    ::syscall(SYS_ioprio_set, 1, 0, 3 << 13); // idle
}

TEST_F(Namespaces, ProgramInheritsNoSchedulingOrMemoryLayoutFromItsCaller)
{
    const nsid_t ns = rooted();
    const char* look = "set -- $(cat /proc/self/stat); echo policy ${41}; cat /proc/self/"
                       "personality; grep -E '^(Cpus_allowed|THP_enabled)' /proc/self/status; "
                       "cat /proc/self/timerslack_ns; ionice -p $$";
    const std::string usual = run(ns, look);
    EXPECT_NE(usual.find("policy 0\n00000000\n"), std::string::npos) << usual;
    EXPECT_NE(usual.find("\n50000\n"), std::string::npos) << usual;
    const pid_t client = ::fork();
    if (client == 0) {
        burden_self();
        const pid_t pid = start(ns, look);
        ::_exit(pid > 0 ? WEXITSTATUS(wait(pid)) : 99);
    }
    EXPECT_EQ(wait(client), 0);
    EXPECT_EQ(read_file("/tmp/out"), usual);
    EXPECT_EQ(znnsDelete(ns), OK);
}

// Returns a directory of a control group hierarchy in which this process may create groups; "" if
// there is none.
std::string group_hierarchy()
{
    std::istringstream mounts(read_file("/proc/self/mountinfo"));
    for (std::string line; std::getline(mounts, line);)
        if (line.find(" - cgroup2 ") != std::string::npos ||
            line.find(",name=systemd") != std::string::npos ||
            line.find(" - cgroup cgroup rw,pids") != std::string::npos) {
            std::istringstream fields(line);
            std::string point;
            for (int i = 0; i < 5; i++)
                fields >> point;
            if (::access(point.c_str(), W_OK) == 0)
                return point;
        }
    return "";
}

TEST_F(Namespaces, ProgramSeesItsControlGroupAsTheRootWhereverItsCallerIs)
{
    const std::string hierarchy = group_hierarchy();
    if (hierarchy.empty())
        GTEST_SKIP() << "no hierarchy of control groups that groups can be made in";
    const std::string group = hierarchy + "/znc-test-" + std::to_string(::getpid());
    if (::mkdir(group.c_str(), 0755) != 0)
        GTEST_SKIP() << "no control group can be made: " << std::strerror(errno);
    const nsid_t ns = rooted();
    const pid_t client = ::fork();
    if (client == 0) {
        std::ofstream(group + "/cgroup.procs") << ::getpid() << std::flush;
        const bool moved = read_file("/proc/self/cgroup").find("znc-test-") != std::string::npos;
        const pid_t pid = moved ? start(ns, "cat /proc/self/cgroup") : -1;
        ::_exit(pid > 0 ? WEXITSTATUS(wait(pid)) : 99);
    }
    EXPECT_EQ(wait(client), 0);
    std::istringstream lines(read_file("/tmp/out"));
    int groups = 0;
    for (std::string line; std::getline(lines, line); groups++)
        EXPECT_EQ(line.substr(line.rfind(':')), ":/") << line;
    EXPECT_GT(groups, 0);
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_EQ(::rmdir(group.c_str()), 0) << std::strerror(errno);
}

TEST_F(Namespaces, ACallerWithoutAnyStreamCreatesAndSpawnsAsUsual)
{
    const pid_t child = ::fork();
    if (child == 0) {
        for (int fd = 0; fd < 3; fd++)
            ::close(fd);
        const nsid_t ns = znnsCreate(kFlags);
        if (ns < 0 || znnsRootfsCreate(ns, root_.c_str(), "web") != OK)
            ::_exit(1);
        znSpawnAttr attr;
        znSpawnAttrInit(&attr);
        znSpawnAttrSetNamespace(&attr, ns);
        char script[] = "test \"$(stat -L -c %t:%T /proc/self/fd/0 /proc/$$/fd/1 /proc/$$/fd/2 "
                        "| grep -c -x 1:3)\" = 3 && test ! -e /proc/$$/fd/3";
        std::array<char*, 4> argv = {const_cast<char*>("sh"), const_cast<char*>("-c"), script,
                                     nullptr};
        std::array<char*, 2> envp = {const_cast<char*>("PATH=/bin"), nullptr};
        pid_t pid = -1;
        if (znSpawn(&pid, (root_ + "/bin/sh").c_str(), &attr, argv.data(), envp.data()) != OK)
            ::_exit(2);
        int status = -1;
        ::waitpid(pid, &status, 0);
        ::_exit(status == 0 && znnsDelete(ns) == OK ? 0 : 3);
    }
    EXPECT_EQ(wait(child), 0);
}

TEST_F(Namespaces, ThreadsWithoutStandardInputMaySpawnAtTheSameTime)
{
    const nsid_t ns = rooted();
    const znc::UniqueFd keep(::fcntl(0, F_DUPFD_CLOEXEC, 10));
    ::close(0);
    const int good = programs_run_by_threads(ns, 4, 20);
    EXPECT_EQ(::fcntl(0, F_GETFD), -1);
    ::dup2(keep.get(), 0);
    EXPECT_EQ(good, 4 * 20);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, SpawnDoesNotWaitForAForkedProcessWithTheCallersDescriptors)
{
    const nsid_t ns = rooted();
    std::atomic<bool> done{false};
    std::vector<pid_t> forked;
    // Some of these processes are forked during a spawn and inherit all descriptors that are open
    // then.
    std::thread forker([&] {
        while (!done && forked.size() < 100) {
            const pid_t pid = ::fork();
            if (pid == 0) {
                ::prctl(PR_SET_PDEATHSIG, SIGKILL);
                ::pause();
                ::_exit(0);
            }
            ASSERT_GT(pid, 0);
            forked.push_back(pid);
        }
        while (!done) // they end with this thread
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    for (int i = 0; i < 20; i++)
        EXPECT_EQ(WEXITSTATUS((run(ns, "exit 4"), exit_)), 4);
    done = true;
    forker.join();
    for (const pid_t pid : forked) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, RefusedAttributesAreNotKept)
{
    znSpawnAttr attr;
    znSpawnAttrInit(&attr);
    EXPECT_EQ(znSpawnAttrSetPriority(&attr, 256), ERROR);
    EXPECT_EQ(znSpawnAttrSetStackSize(&attr, -1), ERROR);
    EXPECT_EQ(znSpawnAttrSetNamespace(&attr, -2), ERROR);
    EXPECT_EQ(znSpawnAttrSetCwd(&attr, "relative"), ERROR);
    EXPECT_EQ(attr.priority, 100);
    EXPECT_EQ(attr.stackSize, 0);
    EXPECT_EQ(attr.ns, -1);
    EXPECT_EQ(attr.cwd, nullptr);
}

// ---------------------------------------------------------------- ends at any moment

// Orphans of processes killed by the test become its children, so that none is missed.
class Subreaper {
  public:
    Subreaper() { ::prctl(PR_SET_CHILD_SUBREAPER, 1); }
    ~Subreaper() { ::prctl(PR_SET_CHILD_SUBREAPER, 0); }
    Subreaper(const Subreaper&) = delete;
    Subreaper& operator=(const Subreaper&) = delete;
};

TEST_F(Namespaces, AnOwnerKilledAtAnyTimeLeavesNothing)
{
    const Subreaper orphans;
    for (int i = 0; i < 60; i++) {
        const pid_t owner = ::fork();
        if (owner == 0)
            for (;;) {
                const nsid_t ns = rooted();
                start(ns, "sleep 1000");
                znnsDelete(ns);
            }
        std::this_thread::sleep_for(std::chrono::microseconds(i * 137));
        ::kill(owner, SIGKILL);
        ::waitpid(owner, nullptr, 0);
        // Keepers detect the end of their owner and exit.
        ASSERT_TRUE(eventually([] {
            while (::waitpid(-1, nullptr, __WALL | WNOHANG) > 0) {
            }
            return children() == 0;
        }));
        EXPECT_EQ(znnsRecover(), 0);
        EXPECT_EQ(children(), 0U);
    }
}

TEST_F(Namespaces, AClientKilledAtAnyTimeLeavesAtMostItsProgram)
{
    const Subreaper orphans;
    const nsid_t ns = rooted();
    for (int i = 0; i < 60; i++) {
        const pid_t client = ::fork();
        if (client == 0)
            for (;;)
                start(ns, "sleep 1000");
        std::this_thread::sleep_for(std::chrono::microseconds(i * 137));
        ::kill(client, SIGKILL);
        ::waitpid(client, nullptr, 0);
        // A spawn in progress either results in a running program or has no effect. A program that
        // entered after the signal was sent gets another one.
        ASSERT_TRUE(eventually([ns] {
            EXPECT_EQ(znnsKill(ns, kKill), OK);
            while (::waitpid(-1, nullptr, WNOHANG) > 0) {
            }
            return children() <= 1;
        }));
        EXPECT_FALSE(in_use(ns));
    }
    EXPECT_EQ(run(ns, "echo alive"), "alive\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, ASpawnIntoANamespaceThatIsBeingDeletedSucceedsOrGivesESRCH)
{
    for (int i = 0; i < 60; i++) {
        const nsid_t ns = rooted();
        int error = 0;
        std::thread spawner([&] {
            znSpawnAttr attr;
            znSpawnAttrInit(&attr);
            znSpawnAttrSetNamespace(&attr, ns);
            std::array<char*, 2> argv = {const_cast<char*>("true"), nullptr};
            const std::string program = root_ + "/bin/true";
            pid_t pid = -1;
            while (znSpawn(&pid, program.c_str(), &attr, argv.data(), nullptr) == OK)
                ::waitpid(pid, nullptr, 0);
            error = errno;
        });
        std::this_thread::sleep_for(std::chrono::microseconds(i * 59));
        EXPECT_EQ(znnsDelete(ns), OK);
        spawner.join();
        EXPECT_EQ(error, ESRCH) << std::strerror(error);
    }
}

} // namespace
