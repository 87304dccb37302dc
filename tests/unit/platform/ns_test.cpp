// Tests of the namespace service, the spawner and overlay devices together, in real namespaces
// without fakes.

#include "namespace_world.hpp"

#include <csignal>
#include <sched.h>
#include <set>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>

using namespace namespace_world;

namespace {

// Uses only shell builtins: another program would be an additional process, or might not exist.
constexpr const char* kCountProcesses = "set -- /proc/[0-9]*; echo $#";

TEST_F(Namespaces, ProgramSeesTheTreeAsItsRootAndItselfAlone)
{
    const nsid_t ns = rooted();
    EXPECT_EQ(run(ns, "echo $$; ls /"), "2\nbin\ndev\netc\nproc\nsys\ntmp\n");
    EXPECT_EQ(run(ns, kCountProcesses), "2\n"); // the keeper and the shell
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, ProgramOfAnOwnerInAChrootSeesNothingAroundIt)
{
    const pid_t owner = ::fork();
    ASSERT_GE(owner, 0);
    if (owner == 0) {
        const bool jailed = ::unshare(CLONE_NEWNS) == 0 &&
                            ::mount("/", "/mnt", nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
                            ::chroot("/mnt") == 0 && ::chdir("/") == 0;
        const nsid_t ns = jailed ? rooted() : -1;
        const bool good = jailed && run(ns, "ls /") == "bin\ndev\netc\nproc\nsys\ntmp\n";
        ::_exit(znnsDelete(ns) == OK && good ? 0 : 1);
    }
    EXPECT_EQ(wait(owner), 0);
}

TEST_F(Namespaces, ProgramHasItsWorkingDirectoryAndEnvironmentOnly)
{
    const nsid_t ns = rooted();
    EXPECT_EQ(run(ns, "exec readlink /proc/self/cwd", "/etc"), "/etc\n");
    znSpawnAttr attr;
    znSpawnAttrInit(&attr);
    znSpawnAttrSetNamespace(&attr, ns);
    std::array<char*, 5> argv = {
        const_cast<char*>("dd"), const_cast<char*>("if=/proc/self/environ"),
        const_cast<char*>("of=/tmp/environ"), const_cast<char*>("status=none"), nullptr};
    std::array<char*, 3> envp = {const_cast<char*>("A=1"), const_cast<char*>("B=2"), nullptr};
    pid_t pid = -1;
    ASSERT_EQ(znSpawn(&pid, (root_ + "/bin/dd").c_str(), &attr, argv.data(), envp.data()), OK);
    wait(pid);
    EXPECT_EQ(read_file(root_ + "/tmp/environ"), std::string("A=1\0B=2\0", 8));
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, HostNameIsTheContainersName)
{
    const nsid_t ns = rooted("db");
    EXPECT_EQ(run(ns, "hostname"), "db\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, ProgramHasOnlyTheContainerCapabilitiesAndNoWayToMore)
{
    const nsid_t ns = rooted();
    const std::string status = run(ns, "grep -E '^(Cap|NoNewPrivs|Groups)' /proc/self/status");
    // CHOWN DAC_OVERRIDE FOWNER FSETID KILL SETGID SETUID SETPCAP NET_BIND_SERVICE SYS_CHROOT
    // SETFCAP
    EXPECT_EQ(status, "Groups:\t \n"
                      "CapInh:\t0000000000000000\n"
                      "CapPrm:\t00000000800405fb\n"
                      "CapEff:\t00000000800405fb\n"
                      "CapBnd:\t00000000800405fb\n"
                      "CapAmb:\t0000000000000000\n"
                      "NoNewPrivs:\t1\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, ProgramHasNoDescriptorOfTheCaller)
{
    std::vector<znc::UniqueFd> leaky;
    for (int i = 0; i < 40; i++)
        leaky.emplace_back(::open("/", O_RDONLY | O_DIRECTORY)); // without O_CLOEXEC
    const nsid_t ns = rooted();
    EXPECT_EQ(run(ns, "exec ls /proc/self/fd"), "0\n1\n2\n3\n"); // 3: the directory being listed
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, ProgramHasDefaultSignalsAndMask)
{
    sigset_t mask;
    sigfillset(&mask);
    sigset_t before;
    ::pthread_sigmask(SIG_SETMASK, &mask, &before);
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction old;
    ::sigaction(SIGUSR1, &ignore, &old);
    const nsid_t ns = rooted();
    const std::string status = run(ns, "exec cat /proc/self/status");
    ::sigaction(SIGUSR1, &old, nullptr);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_NE(status.find("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"),
              std::string::npos)
        << status;
    EXPECT_NE(status.find("Umask:\t0022\n"), std::string::npos) << status;
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, DevHoldsTheStandardNodesAndNothingIsWrittenToTheTree)
{
    const nsid_t ns = rooted();
    EXPECT_EQ(run(ns, "ls /dev"),
              "fd\nfull\nmqueue\nnull\nptmx\npts\nrandom\nshm\nstderr\nstdin\nstdout\ntty\n"
              "urandom\nzero\n");
    EXPECT_EQ(run(ns, "echo lost > /dev/null; dd if=/dev/zero bs=4 count=1 2>/dev/null | cat -v"),
              "^@^@^@^@");
    EXPECT_TRUE(fs::is_empty(root_ + "/dev"));
    EXPECT_TRUE(fs::is_empty(root_ + "/proc"));
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, ProcAndSysAreWriteProtectedAndMasked)
{
    const nsid_t ns = rooted();
    EXPECT_NE(run(ns, "echo 1 > /proc/sys/kernel/panic"), "");
    EXPECT_NE(exit_, 0);
    EXPECT_NE(run(ns, "echo h > /proc/sysrq-trigger"), "");
    EXPECT_NE(exit_, 0);
    EXPECT_EQ(run(ns, "test -e /proc/kcore && dd if=/proc/kcore bs=1 count=1 2>/dev/null"), "");
    EXPECT_EQ(run(ns, "ls /sys/firmware"), "");
    EXPECT_NE(run(ns, "mkdir /sys/fs/x"), "");
    EXPECT_NE(exit_, 0);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, DirectoriesThatAreMissingOrLinksAreNotProvided)
{
    fs::remove(root_ + "/proc");
    fs::remove(root_ + "/dev");
    fs::create_directory_symlink("/etc", root_ + "/dev");
    const nsid_t ns = rooted();
    EXPECT_EQ(run(ns, "ls /etc; ls -d /proc || true"), "ls: /proc: No such file or directory\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, DeviceNodesAndSetIdProgramsInTheRootHaveNoEffect)
{
    ASSERT_EQ(::mknod((root_ + "/etc/zero").c_str(), S_IFCHR | 0666, makedev(1, 5)), 0);
    const nsid_t ns = rooted();
    run(ns, "head -c 1 /etc/zero");
    EXPECT_NE(exit_, 0);
    EXPECT_NE(run(ns, "grep -E '^[0-9]+ [0-9]+ [0-9:]+ [^ ]+ / ' /proc/self/mountinfo")
                  .find("nosuid,nodev"),
              std::string::npos);
    run(ns, "mknod /tmp/null c 1 3");
    EXPECT_NE(exit_, 0);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, NothingOfTheHostIsMountedInside)
{
    const nsid_t ns = rooted();
    const std::string list = run(ns, "cat /proc/self/mountinfo");
    std::set<std::string> points;
    std::istringstream lines(list);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string field;
        for (int i = 0; i < 5; i++)
            fields >> field;
        points.insert(field);
    }
    for (const std::string& point : points)
        EXPECT_TRUE(point == "/" || point.rfind("/proc", 0) == 0 || point.rfind("/dev", 0) == 0 ||
                    point.rfind("/sys", 0) == 0)
            << point;
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, KillReachesEveryProcessByThePlatformsNumber)
{
    const nsid_t ns = rooted();
    const pid_t pid = start(ns, "trap 'echo got; exit 7' USR1; while :; do sleep 0.01; done");
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(eventually([pid] { return catches(pid, SIGUSR1); }));
    EXPECT_EQ(znnsProcessKill(ns, pid, kUsr1), OK) << std::strerror(errno);
    const int status = wait(pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);
    const pid_t a = start(ns, "sleep 100");
    const pid_t b = start(ns, "sleep 100 & wait");
    EXPECT_EQ(znnsKill(ns, kKill), OK);
    EXPECT_EQ(wait(a), SIGKILL);
    EXPECT_EQ(wait(b), SIGKILL);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, KillWithoutProcessesSucceeds)
{
    const nsid_t ns = rooted();
    EXPECT_EQ(znnsKill(ns, kTerm), OK);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, KillOfHandleZeroAStrangerOrAnEndedProcessGivesESRCH)
{
    const nsid_t ns = rooted();
    errno = 0;
    EXPECT_EQ(znnsProcessKill(ns, 0, kTerm), ERROR);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_EQ(znnsProcessKill(ns, getpid(), kTerm), ERROR); // otherwise this test would be killed
    EXPECT_EQ(errno, ESRCH);
    const pid_t pid = start(ns, "exit 0");
    siginfo_t info;
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    errno = 0;
    EXPECT_EQ(znnsProcessKill(ns, pid, kTerm), ERROR);
    EXPECT_EQ(errno, ESRCH);
    wait(pid);
    EXPECT_EQ(znnsProcessKill(ns, pid, kTerm), ERROR);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, KillWithAnUnknownSignalGivesEINVAL)
{
    const nsid_t ns = rooted();
    EXPECT_EQ(znnsKill(ns, 47), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, InUseOnlyWhileAProcessLives)
{
    const nsid_t ns = rooted();
    EXPECT_FALSE(in_use(ns));
    const pid_t pid = start(ns, "read line < /dev/ptmx; exit 0");
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(in_use(ns));
    ::kill(pid, SIGKILL);
    siginfo_t info;
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_FALSE(in_use(ns)); // ended, but not reaped
    wait(pid);
    EXPECT_FALSE(in_use(ns));
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, ExpectedProcessesCountUntilTheSpawnSucceededOrFailed)
{
    const nsid_t ns = rooted();
    ASSERT_EQ(znnsExpect(ns, getpid()), OK) << std::strerror(errno);
    EXPECT_TRUE(in_use(ns));
    run(ns, "exit 0");
    EXPECT_FALSE(in_use(ns)) << "it has been there";
    ASSERT_EQ(znnsExpect(ns, 0), OK);
    EXPECT_TRUE(in_use(ns));
    znSpawnAttr attr;
    znSpawnAttrInit(&attr);
    znSpawnAttrSetNamespace(&attr, ns);
    std::array<char*, 2> argv = {const_cast<char*>("x"), nullptr};
    pid_t pid = -1;
    EXPECT_EQ(znSpawn(&pid, (root_ + "/bin/none").c_str(), &attr, argv.data(), nullptr), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(in_use(ns)) << "it failed";
    ASSERT_EQ(znnsExpect(ns, getpid()), OK);
    EXPECT_EQ(znSpawn(&pid, "/elsewhere", &attr, argv.data(), nullptr), ERROR);
    EXPECT_FALSE(in_use(ns)) << "it was not even tried";
    ASSERT_EQ(znnsExpect(ns, getpid()), OK);
    EXPECT_EQ(znnsExpectEnd(ns), OK);
    EXPECT_FALSE(in_use(ns)) << "the caller gave up";
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_EQ(znnsExpect(ns, getpid()), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(znnsExpectEnd(ns), ERROR);
}

TEST_F(Namespaces, ExpectedProcessesOfACallerThatEndedOrIsLateDoNotCount)
{
    const nsid_t ns = rooted();
    const pid_t caller = ::fork();
    if (caller == 0) {
        ::pause();
        ::_exit(0);
    }
    ASSERT_EQ(znnsExpect(ns, caller), OK);
    EXPECT_TRUE(in_use(ns));
    ::kill(caller, SIGKILL);
    siginfo_t info;
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(caller), &info, WEXITED | WNOWAIT), 0);
    EXPECT_FALSE(in_use(ns));
    wait(caller);
    ASSERT_EQ(znnsExpect(ns, getpid()), OK);
    EXPECT_TRUE(in_use(ns));
    EXPECT_TRUE(eventually([&] { return !in_use(ns); }));
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, NoProcessIsExpectedInANamespaceWhoseKeeperIsDead)
{
    const nsid_t ns = rooted();
    std::istringstream record(read_file("/run/zarnel/ns/" + std::to_string(ns)));
    pid_t keeper = 0;
    record >> keeper;
    ASSERT_EQ(znnsExpect(ns, getpid()), OK);
    ASSERT_EQ(::kill(keeper, SIGKILL), 0);
    EXPECT_TRUE(eventually([&] { return !in_use(ns); }));
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, OrphansCountAsLivingAndAreReaped)
{
    const nsid_t ns = rooted();
    EXPECT_EQ(run(ns, "sleep 100 & exit 3"), "");
    EXPECT_EQ(WEXITSTATUS(exit_), 3);
    EXPECT_TRUE(in_use(ns));
    EXPECT_EQ(znnsKill(ns, kKill), OK);
    ASSERT_TRUE(eventually([&] { return !in_use(ns); }));
    EXPECT_TRUE(eventually([&] { return run(ns, kCountProcesses) == "2\n"; }));
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, DeleteKillsAllProcessesAndDoesNotWaitForTheirParents)
{
    const nsid_t ns = rooted();
    const pid_t pid = start(ns, "trap '' TERM INT HUP; while :; do sleep 100; done");
    ASSERT_GT(pid, 0);
    EXPECT_EQ(znnsDelete(ns), OK);
    siginfo_t info = {};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT), 0);
    EXPECT_EQ(info.si_pid, pid); // the process is dead when delete returns
    EXPECT_EQ(wait(pid), SIGKILL);
    BOOL used;
    EXPECT_EQ(znnsInUse(ns, &used), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Namespaces, SpawnIntoADeletedNamespaceGivesESRCH)
{
    const nsid_t ns = rooted();
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_EQ(start(ns, "true"), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(Namespaces, SpawnAfterTheKeeperDiedGivesESRCHAndUndoingStillWorks)
{
    const nsid_t ns = rooted();
    std::istringstream record(read_file("/run/zarnel/ns/" + std::to_string(ns)));
    pid_t keeper = 0;
    record >> keeper;
    ASSERT_GT(keeper, 1);
    ASSERT_EQ(::kill(keeper, SIGKILL), 0);
    // A process that entered before the end is killed with the namespace, and must still be reaped
    // by its parent.
    for (pid_t pid = 0; (pid = start(ns, "true")) > 0;)
        wait(pid);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_FALSE(in_use(ns));
    EXPECT_EQ(znnsRootfsDestroy(ns, root_.c_str(), "web"), OK);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, RecordOfAnotherProcessIsIgnored)
{
    const nsid_t ns = rooted();
    const std::string path = "/run/zarnel/ns/" + std::to_string(ns);
    // our process id, but a different start time
    std::ofstream(path) << getpid() << " 1 0 0 -o\n" << root_;
    EXPECT_EQ(start(ns, "true"), -1);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, ARecordOfAnotherFormLeadsNowhereAndIsNotChanged)
{
    const nsid_t ns = rooted();
    const std::string path = "/run/zarnel/ns/" + std::to_string(ns);
    const std::string good = read_file(path);
    for (const char* text : {"", "\n", "\n1 2 -o", "1\n/x", "1 2\n/x", "1 2 -\n/x", "1 2 - o\n/x",
                             "0 2 -o\n/x", "1 2 -o", "1 2 -oo\n/x"}) {
        std::ofstream(path) << text;
        EXPECT_EQ(znnsExpect(ns, getpid()), ERROR) << text;
        EXPECT_EQ(errno, EINVAL) << text;
        EXPECT_EQ(start(ns, "true"), -1) << text;
        EXPECT_EQ(errno, ESRCH) << text;
        EXPECT_EQ(read_file(path), text);
    }
    std::ofstream(path) << good;
    EXPECT_EQ(run(ns, "echo alive"), "alive\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, SpawnErrorsComeBackAndLeaveNoChild)
{
    const nsid_t ns = rooted();
    znSpawnAttr attr;
    znSpawnAttrInit(&attr);
    znSpawnAttrSetNamespace(&attr, ns);
    std::array<char*, 2> argv = {const_cast<char*>("x"), nullptr};
    pid_t pid = -1;
    EXPECT_EQ(znSpawn(&pid, (root_ + "/bin/none").c_str(), &attr, argv.data(), nullptr), ERROR);
    EXPECT_EQ(errno, ENOENT);
    std::ofstream(root_ + "/bin/text") << "no program";
    EXPECT_EQ(znSpawn(&pid, (root_ + "/bin/text").c_str(), &attr, argv.data(), nullptr), ERROR);
    EXPECT_EQ(errno, EACCES);
    // the path is not below the root
    EXPECT_EQ(znSpawn(&pid, "/bin/true", &attr, argv.data(), nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
    znSpawnAttrSetCwd(&attr, "/none");
    EXPECT_EQ(znSpawn(&pid, (root_ + "/bin/true").c_str(), &attr, argv.data(), nullptr), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(children(), 1U); // the keeper
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, WorkingDirectoryThroughAMagicLinkIsRefused)
{
    const nsid_t ns = rooted();
    for (const char* cwd : {"/proc/self/fd/3", "/proc/1/root", "/proc/1/cwd", "/proc/self/root"})
        EXPECT_EQ(start(ns, "pwd", cwd), -1) << cwd;
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, LinksOfTheTreeResolveInside)
{
    fs::create_directories(root_ + "/alt");
    fs::create_symlink("/bin/busybox", root_ + "/alt/echo");
    fs::create_directory_symlink("/etc", root_ + "/conf");
    const nsid_t ns = rooted();
    EXPECT_EQ(run(ns, "/alt/echo hello; pwd", "/conf"), "hello\n/etc\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, PriorityBecomesTheNiceValueAndUrgentOnesNeedAllowance)
{
    const nsid_t ns = rooted();
    const auto nice_of = [&](int priority) {
        const pid_t pid = start(ns, "exec cat /proc/self/stat", "/", priority);
        wait(pid);
        std::istringstream stat(read_file("/tmp/out"));
        std::string field;
        for (int i = 0; i < 19; i++)
            stat >> field;
        return field;
    };
    EXPECT_EQ(nice_of(100), "0");
    EXPECT_EQ(nice_of(255), "19");
    EXPECT_EQ(nice_of(0), "0");
    EXPECT_EQ(nice_of(50), "0");
    ASSERT_EQ(znnsUrgentAllow(ns, TRUE), OK) << std::strerror(errno);
    EXPECT_EQ(nice_of(100), "0");
    EXPECT_EQ(nice_of(50), "-10");
    EXPECT_EQ(nice_of(0), "-20");
    ASSERT_EQ(znnsUrgentAllow(ns, FALSE), OK);
    EXPECT_EQ(nice_of(0), "0");
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_EQ(znnsUrgentAllow(ns, TRUE), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Namespaces, SettersRefuseInvalidValues)
{
    znSpawnAttr attr;
    EXPECT_EQ(znSpawnAttrInit(&attr), OK);
    errno = 0;
    EXPECT_EQ(znSpawnAttrSetPriority(&attr, 256), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(znSpawnAttrSetPriority(&attr, -1), ERROR);
    EXPECT_EQ(znSpawnAttrSetStackSize(&attr, -1), ERROR);
    EXPECT_EQ(znSpawnAttrSetCwd(&attr, "relative"), ERROR);
    EXPECT_EQ(znSpawnAttrSetCwd(&attr, nullptr), ERROR);
    EXPECT_EQ(znSpawnAttrSetNamespace(&attr, -1), ERROR);
    EXPECT_EQ(znSpawnAttrSetFlags(&attr, 0x180), OK);
    EXPECT_EQ(znSpawnAttrSetOptions(&attr, 0x40), OK);
    EXPECT_EQ(znSpawnAttrDestroy(&attr), OK);
}

TEST_F(Namespaces, CallersClosedStreamsAreTheNullDeviceInside)
{
    const nsid_t ns = rooted();
    closeInput_ = true;
    EXPECT_EQ(run(ns, "stat -L -c %t:%T /proc/self/fd/0"), "1:3\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, ARootThatIsNoDirectoryDropsTheNamespace)
{
    std::ofstream("/tmp/file") << "x";
    const nsid_t ns = znnsCreate(kFlags);
    EXPECT_EQ(znnsRootfsCreate(ns, "/tmp/file", "web"), ERROR);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(znnsDelete(ns), ERROR);
    EXPECT_EQ(errno, EINVAL);
    const nsid_t other = znnsCreate(kFlags);
    EXPECT_EQ(znnsRootfsCreate(other, "/tmp/none", "web"), ERROR);
    EXPECT_EQ(errno, ENOENT);
}

// ---------------------------------------------------------------- mounts

TEST_F(Namespaces, BindShowsAHostDirectoryAndIsUndone)
{
    fs::create_directories("/tmp/data");
    std::ofstream("/tmp/data/file") << "content";
    const nsid_t ns = rooted();
    ASSERT_EQ(mount(ns, "/tmp/data", "/mnt/data", "bind", {"ro"}), OK) << std::strerror(errno);
    EXPECT_EQ(run(ns, "cat /mnt/data/file"), "content");
    run(ns, "touch /mnt/data/new");
    EXPECT_NE(exit_, 0);
    EXPECT_NE(run(ns, "grep /mnt/data /proc/self/mountinfo").find("ro,nosuid,nodev"),
              std::string::npos);
    EXPECT_EQ(znnsUmount(ns, "", "/tmp/data", "/mnt/data", "bind", nullptr), OK);
    EXPECT_EQ(run(ns, "ls /mnt/data"), "");
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_TRUE(fs::exists("/tmp/data/file"));
    fs::remove_all("/tmp/data");
}

TEST_F(Namespaces, BindOfAFileMakesItsMountPoint)
{
    std::ofstream("/tmp/one") << "1";
    const nsid_t ns = rooted();
    ASSERT_EQ(mount(ns, "/tmp/one", "/etc/deep/one", nullptr, {}), OK) << std::strerror(errno);
    EXPECT_EQ(run(ns, "cat /etc/deep/one"), "1");
    EXPECT_EQ(znnsUmount(ns, "", "/tmp/one", "/etc/deep/one", nullptr, nullptr), OK);
    EXPECT_EQ(run(ns, "cat /etc/deep/one"), "");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, UnknownTypesBindWhenTheSourceExistsAndFailWhenNot)
{
    fs::create_directories("/tmp/data");
    const nsid_t ns = rooted();
    EXPECT_EQ(mount(ns, "/tmp/data", "/a", "unknown", {}), OK);
    EXPECT_EQ(mount(ns, "/tmp/data", "/b", "", {}), OK);
    EXPECT_EQ(mount(ns, "/tmp/none", "/c", "unknown", {}), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(mount(ns, "/tmp/none", "/c", "bind", {}), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(mount(ns, "/tmp/data", "/c", "nosuchfs", {}), ERROR);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, AnEmptyDestinationMountsNothingAndSucceeds)
{
    const nsid_t ns = rooted();
    EXPECT_EQ(mount(ns, "/data", "", "unknown", {}), OK);
    EXPECT_EQ(mount(ns, "/data", nullptr, nullptr, {}), OK);
    EXPECT_EQ(znnsUmount(ns, "", "/data", "", "unknown", nullptr), OK);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, FilesystemsMountWithFlagsAndOptions)
{
    const nsid_t ns = rooted();
    ASSERT_EQ(mount(ns, "tmpfs", "/scratch", "tmpfs", {"nosuid", "noexec", "size=64k", "mode=700"}),
              OK)
        << std::strerror(errno);
    const std::string line = run(ns, "grep ' /scratch ' /proc/self/mountinfo");
    EXPECT_NE(line.find("nosuid,noexec"), std::string::npos) << line;
    EXPECT_NE(line.find("size=64k,mode=700"), std::string::npos) << line;
    EXPECT_EQ(mount(ns, "tmpfs", "/scratch2", "tmpfs", {"nosuchoption=1"}), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(znnsUmount(ns, "", "tmpfs", "/scratch", "tmpfs", nullptr), OK);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, ConfiguredProcAndSysfsAreMaskedToo)
{
    const nsid_t ns = rooted();
    ASSERT_EQ(mount(ns, "proc", "/proc", "proc", {}), OK) << std::strerror(errno);
    ASSERT_EQ(mount(ns, "sysfs", "/sys", "sysfs", {"rw"}), OK) << std::strerror(errno);
    run(ns, "echo 1 > /proc/sys/kernel/panic");
    EXPECT_NE(exit_, 0);
    run(ns, "mkdir /sys/fs/x");
    EXPECT_NE(exit_, 0);
    EXPECT_EQ(run(ns, "ls /sys/firmware"), "");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, LinksOnTheWayToAMountPointStayInside)
{
    fs::create_directories("/tmp/data");
    fs::create_directories("/tmp/outside");
    fs::create_directories(root_ + "/tmp/outside");
    fs::create_directory_symlink("/tmp/outside", root_ + "/link");
    fs::create_directory_symlink("../../../../../../tmp/outside", root_ + "/up");
    const nsid_t ns = rooted();
    EXPECT_EQ(mount(ns, "/tmp/data", "/link/point", "bind", {}), OK);
    EXPECT_EQ(mount(ns, "/tmp/data", "/up/../up/other", "bind", {}), OK);
    EXPECT_TRUE(fs::is_empty("/tmp/outside"));
    EXPECT_TRUE(fs::exists(root_ + "/tmp/outside/point"));
    EXPECT_EQ(mount(ns, "/tmp/data", "/proc/1/root/x", "bind", {}), ERROR);
    EXPECT_EQ(mount(ns, "/tmp/data", "/", "bind", {}), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, MountMovedByTheContainerEndsWithTheNamespace)
{
    fs::create_directories("/tmp/data");
    const nsid_t ns = rooted();
    ASSERT_EQ(mount(ns, "/tmp/data", "/a/b", "bind", {}), OK);
    run(ns, "mv /a /moved && ln -s /etc /a");
    EXPECT_EQ(exit_, 0);
    EXPECT_EQ(znnsUmount(ns, "", "/tmp/data", "/a/b", "bind", nullptr), OK);
    // it can be unmounted only once
    EXPECT_EQ(znnsUmount(ns, "", "/tmp/data", "/a/b", "bind", nullptr), ERROR);
    EXPECT_EQ(znnsDelete(ns), OK);
}

// ---------------------------------------------------------------- owners

TEST_F(Namespaces, EverythingEndsWithTheOwnerHoweverItEnds)
{
    int pipes[2];
    ASSERT_EQ(::pipe2(pipes, O_CLOEXEC), 0);
    const znc::UniqueFd reader(pipes[0]);
    znc::UniqueFd writer(pipes[1]);
    // otherwise orphans get a parent that may not reap them soon
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t owner = ::fork();
    if (owner == 0) {
        const nsid_t ns = rooted();
        const pid_t pid = start(ns, "sleep 1000");
        if (::write(writer.get(), &pid, sizeof pid) != sizeof pid)
            ::_exit(1);
        ::pause();
        ::_exit(1);
    }
    writer.reset();
    pid_t pid = -1;
    ASSERT_EQ(::read(reader.get(), &pid, sizeof pid), static_cast<ssize_t>(sizeof pid));
    ASSERT_GT(pid, 0);
    ASSERT_EQ(::kill(pid, 0), 0);
    ::kill(owner, SIGKILL);
    wait(owner);
    const auto gone = [&] {
        const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
        return stat.empty() || stat.find(") Z") != std::string::npos;
    };
    ASSERT_TRUE(eventually(gone));
    EXPECT_FALSE(fs::is_empty("/run/zarnel/ns"));
    EXPECT_TRUE(eventually([] {
        while (::waitpid(-1, nullptr, __WALL | WNOHANG) > 0) {
        }
        return children() == 0;
    }));
    ::prctl(PR_SET_CHILD_SUBREAPER, 0);
    EXPECT_EQ(znnsRecover(), 0);
    EXPECT_TRUE(fs::is_empty("/run/zarnel/ns"));
}

TEST_F(Namespaces, AHundredRoundsLeaveNothing)
{
    for (int i = 0; i < 100; i++) {
        const nsid_t ns = rooted();
        const pid_t pid = start(ns, "exit 5");
        ASSERT_GT(pid, 0) << std::strerror(errno);
        EXPECT_EQ(WEXITSTATUS(wait(pid)), 5);
        ASSERT_EQ(znnsRootfsDestroy(ns, root_.c_str(), "web"), OK);
        ASSERT_EQ(znnsDelete(ns), OK);
    }
}

TEST_F(Namespaces, ThreadsMaySpawnAtTheSameTime)
{
    const nsid_t ns = rooted();
    EXPECT_EQ(programs_run_by_threads(ns, 8, 20), 8 * 20);
    EXPECT_EQ(znnsDelete(ns), OK);
}

} // namespace
