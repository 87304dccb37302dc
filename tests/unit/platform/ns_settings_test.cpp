// Tests of what the configuration of a container changes in its namespaces and for its programs, in
// real namespaces.

#include "configured_world.hpp"
#include "zarnel/ns_control.h"

#include <pty.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace namespace_world;

namespace {

using Settings = Configured;

std::string namespace_of(const std::string& process, const char* kind)
{
    return fs::read_symlink("/proc/" + process + "/ns/" + kind).string();
}

constexpr const char* kStatus = "grep -E '^Cap|^NoNew|^Seccomp:' /proc/self/status";

// ---------------------------------------------------------------- namespaces

TEST_F(Settings, NetworkNamespaceHasLoopbackOnlyAndItIsUp)
{
    const nsid_t ns = rooted();
    EXPECT_EQ(run(ns, "ls /sys/class/net"), "lo\n");
    EXPECT_EQ(run(ns, "cat /sys/class/net/lo/flags"), "0x9\n"); // up, loopback
    EXPECT_NE(run(ns, "readlink /proc/self/ns/net"), namespace_of("self", "net") + "\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Settings, NamespacesThatADocumentOmitsAreTheHosts)
{
    znnsPrivilegedAllow(TRUE);
    const std::string out =
        under(R"({"linux":{"namespaces":[{"type":"mount"},{"type":"pid"},{"type":"ipc"}]}})",
              "cd /proc/self/ns; readlink net; readlink uts; readlink ipc");
    std::istringstream lines(out);
    std::string net;
    std::string uts;
    std::string ipc;
    lines >> net >> uts >> ipc;
    EXPECT_EQ(net, namespace_of("self", "net"));
    EXPECT_EQ(uts, namespace_of("self", "uts"));
    EXPECT_NE(ipc, namespace_of("self", "ipc"));
}

TEST_F(Settings, ANetworkNamespaceIsJoinedByPath)
{
    const pid_t holder = ::fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        if (::unshare(CLONE_NEWNET) != 0)
            ::_exit(1);
        for (;;)
            ::pause();
    }
    const std::string process = std::to_string(holder);
    ASSERT_TRUE(
        eventually([&] { return namespace_of(process, "net") != namespace_of("self", "net"); }));
    znnsPrivilegedAllow(TRUE);
    EXPECT_EQ(under(R"({"linux":{"namespaces":[{"type":"mount"},{"type":"pid"},{"type":"ipc"},)"
                    R"({"type":"uts"},{"type":"network","path":"/proc/)" +
                        process + R"(/ns/net"}]}})",
                    "readlink /proc/self/ns/net"),
              namespace_of(process, "net") + "\n");
    ::kill(holder, SIGKILL);
    wait(holder);
}

TEST_F(Settings, APathThatIsNoSuchNamespaceIsRefusedByName)
{
    znnsPrivilegedAllow(TRUE);
    const std::string start = R"({"linux":{"namespaces":[{"type":"mount"},{"type":"pid"},)";
    refused(start + R"({"type":"network","path":"/proc/self/ns/uts"}]}})", EINVAL,
            "linux.namespaces: network");
    refused(start + R"({"type":"network","path":"/nowhere"}]}})", ENOENT,
            "linux.namespaces: network");
    refused(R"({"linux":{"namespaces":[{"type":"mount"}]}})", ENOTSUP, "linux.namespaces");
    refused(R"({"linux":{"namespaces":[{"type":"pid"}]}})", ENOTSUP, "linux.namespaces");
}

TEST_F(Settings, HostNameIsThatOfTheDocumentElseTheContainers)
{
    EXPECT_EQ(under(R"({"hostname":"box"})", "hostname"), "box\n");
    EXPECT_EQ(under("{}", "hostname"), "web\n");
    refused(R"({"hostname":"a b"})", EINVAL, "hostname");
}

// ---------------------------------------------------------------- users and rights

TEST_F(Settings, ProgramRunsAsTheUserOfTheDocument)
{
    EXPECT_EQ(under(R"({"process":{"user":{"uid":1000,"gid":100,"additionalGids":[7,8]}}})",
                    "id -u; id -g; grep Groups /proc/self/status; id -ru; id -rg"),
              "1000\n100\nGroups:\t7 8 \n1000\n100\n");
}

TEST_F(Settings, AUserThatIsNotRootHasNoCapabilitiesButTheirBound)
{
    EXPECT_EQ(under(R"({"process":{"user":{"uid":1000,"gid":1000}}})", kStatus),
              "CapInh:\t0000000000000000\nCapPrm:\t0000000000000000\n"
              "CapEff:\t0000000000000000\nCapBnd:\t00000000800405fb\n"
              "CapAmb:\t0000000000000000\nNoNewPrivs:\t1\nSeccomp:\t2\n");
}

TEST_F(Settings, RootHasTheDefaultCapabilities)
{
    const nsid_t ns = rooted();
    EXPECT_EQ(run(ns, kStatus), "CapInh:\t0000000000000000\nCapPrm:\t00000000800405fb\n"
                                "CapEff:\t00000000800405fb\nCapBnd:\t00000000800405fb\n"
                                "CapAmb:\t0000000000000000\nNoNewPrivs:\t1\nSeccomp:\t2\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Settings, TheFiveCapabilitySetsAreThoseOfTheDocument)
{
    EXPECT_EQ(under(R"({"process":{"user":{"uid":1000,"gid":1000},"capabilities":{)"
                    R"("bounding":["CAP_CHOWN","CAP_KILL","CAP_SETUID"],)"
                    R"("permitted":["CAP_CHOWN","CAP_KILL"],"effective":["CAP_KILL"],)"
                    R"("inheritable":["CAP_KILL"],"ambient":["CAP_KILL"]}}})",
                    kStatus),
              "CapInh:\t0000000000000020\nCapPrm:\t0000000000000020\n"
              "CapEff:\t0000000000000020\nCapBnd:\t00000000000000a1\n"
              "CapAmb:\t0000000000000020\nNoNewPrivs:\t1\nSeccomp:\t2\n");
}

TEST_F(Settings, SettingsBeyondTheDefaultsMustBeAllowed)
{
    const std::string more = R"({"process":{"capabilities":{"bounding":["CAP_SYS_ADMIN"],)"
                             R"("permitted":["CAP_SYS_ADMIN"],"effective":["CAP_SYS_ADMIN"]}}})";
    refused(more, EPERM, "process.capabilities");
    refused(R"({"process":{"noNewPrivileges":false}})", EPERM, "process.noNewPrivileges");
    znnsPrivilegedAllow(TRUE);
    EXPECT_NE(under(more, kStatus).find("CapEff:\t0000000000200000"), std::string::npos);
    EXPECT_NE(under(R"({"process":{"noNewPrivileges":false}})", kStatus)
                  .find("NoNewPrivs:\t0\nSeccomp:\t2"),
              std::string::npos);
}

TEST_F(Settings, LimitsUmaskAndOomScoreAreThoseOfTheDocument)
{
    EXPECT_EQ(under(R"({"process":{"user":{"uid":0,"gid":0,"umask":63},"oomScoreAdj":321,)"
                    R"("rlimits":[{"type":"RLIMIT_NOFILE","soft":111,"hard":222}]}})",
                    "umask; cat /proc/self/oom_score_adj; ulimit -n; ulimit -Hn"),
              "0077\n321\n111\n222\n");
}

TEST_F(Settings, ALimitThatTheDaemonMayNotGiveIsRefusedByName)
{
    struct rlimit own = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &own), 0);
    const struct rlimit higher = {own.rlim_cur, own.rlim_max + 1};
    if (::setrlimit(RLIMIT_NOFILE, &higher) == 0) {
        ::setrlimit(RLIMIT_NOFILE, &own);
        GTEST_SKIP() << "this process may raise its limits";
    }
    const std::string hard = std::to_string(own.rlim_max + 1);
    refused(R"({"process":{"rlimits":[{"type":"RLIMIT_NOFILE","soft":1,"hard":)" + hard + "}]}}",
            EPERM, "process.rlimits[0].hard");
}

TEST_F(Settings, AnotherUserCanBeChosenForOneProgram)
{
    const nsid_t ns = sealed(R"({"process":{"user":{"uid":1000,"gid":1000}}})");
    const std::array<std::uint32_t, 2> groups = {5, 6};
    for (const std::uint32_t uid : {0U, 2000U}) {
        const ZN_SPAWN_USER user = {uid, 3000, groups.data(), groups.size()};
        znSpawnAttr attr;
        znSpawnAttrInit(&attr);
        znSpawnAttrSetNamespace(&attr, ns);
        ASSERT_EQ(znSpawnAttrSetUser(&attr, &user), OK);
        const std::string script =
            "grep -E '^Uid|^Gid|^Groups|^CapEff' /proc/self/status >/tmp/" + std::to_string(uid);
        std::array<char*, 4> argv = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                                     const_cast<char*>(script.c_str()), nullptr};
        std::array<char*, 2> envp = {const_cast<char*>("PATH=/bin"), nullptr};
        fs::permissions(root_ + "/tmp", fs::perms::all);
        pid_t pid = -1;
        ASSERT_EQ(znSpawn(&pid, (root_ + "/bin/sh").c_str(), &attr, argv.data(), envp.data()), OK);
        EXPECT_EQ(wait(pid), 0);
    }
    EXPECT_EQ(read_file(root_ + "/tmp/0"), "Uid:\t0\t0\t0\t0\nGid:\t3000\t3000\t3000\t3000\n"
                                           "Groups:\t5 6 \nCapEff:\t00000000800405fb\n");
    EXPECT_EQ(read_file(root_ + "/tmp/2000"),
              "Uid:\t2000\t2000\t2000\t2000\nGid:\t3000\t3000\t3000\t3000\n"
              "Groups:\t5 6 \nCapEff:\t0000000000000000\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Settings, TheFilterOfTheDocumentReplacesTheDefault)
{
    EXPECT_EQ(
        under(R"({"linux":{"seccomp":{"defaultAction":"SCMP_ACT_ERRNO","syscalls":[]}}})", "true"),
        "");
    EXPECT_TRUE(WIFSIGNALED(exit_)) << "without system calls a process can neither run nor exit";
}

TEST_F(Settings, FiltersThatAnotherProgramAnswersAreRefused)
{
    znnsPrivilegedAllow(TRUE);
    EXPECT_LT(configured(R"({"linux":{"seccomp":{"defaultAction":"SCMP_ACT_ALLOW",)"
                         R"("syscalls":[{"names":["mkdir"],"action":"SCMP_ACT_NOTIFY"}]}}})"),
              0);
    EXPECT_EQ(reason_, "linux.seccomp.syscalls[0].action: SCMP_ACT_NOTIFY is not supported");
    EXPECT_LT(configured(R"({"linux":{"seccomp":{"defaultAction":"SCMP_ACT_ALLOW",)"
                         R"("listenerPath":"/agent"}}})"),
              0);
    EXPECT_EQ(reason_, "linux.seccomp.listenerPath: is not supported");
}

// ---------------------------------------------------------------- files

TEST_F(Settings, AReadOnlyRootIsReadOnlyButMountsAreNot)
{
    const nsid_t ns = configured(R"({"root":{"path":"rootfs","readonly":true}})");
    ASSERT_GE(ns, 0) << reason_;
    EXPECT_EQ(mount(ns, "tmpfs", "/data", "tmpfs", {}), OK) << "the mount point can be created";
    ASSERT_EQ(znnsSeal(ns, nullptr, 0), OK);
    EXPECT_EQ(run(ns, "touch /x /data/y 2>&1; ls /data; echo null >/dev/null && echo ok"),
              "touch: /x: Read-only file system\ny\nok\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Settings, MaskedPathsAreEmptyAndReadOnlyPathsAreReadOnly)
{
    fs::create_directories(root_ + "/secret");
    std::ofstream(root_ + "/secret/file") << "x";
    std::ofstream(root_ + "/key") << "x";
    fs::create_directories(root_ + "/fixed");
    std::ofstream(root_ + "/fixed/file") << "fixed";
    EXPECT_EQ(under(R"({"linux":{"maskedPaths":["/secret","/key","/missing","/proc/uptime"],)"
                    R"("readonlyPaths":["/fixed","/none"]}})",
                    "ls /secret; cat /key /proc/uptime; cat /fixed/file; echo; touch /fixed/x 2>&1;"
                    "cat /proc/keys"),
              "fixed\ntouch: /fixed/x: Read-only file system\n")
        << "and what is masked by default stays so";
}

TEST_F(Settings, AMaskedPathThatIsALinkIsFollowedInsideTheRootOnly)
{
    fs::create_directories(root_ + "/inner");
    std::ofstream(root_ + "/inner/file") << "x";
    fs::create_symlink("../../../../inner", root_ + "/link");
    EXPECT_EQ(under(R"({"linux":{"maskedPaths":["/link"]}})", "ls /inner"), "");
}

TEST_F(Settings, DevicesAreCreatedWithModeAndOwner)
{
    const std::string document =
        R"({"linux":{"devices":[{"path":"/dev/net/tun","type":"c","major":10,"minor":200,)"
        R"("fileMode":432,"uid":1,"gid":2},{"path":"/dev/pipe","type":"p"}]}})";
    refused(document, EPERM, "linux.devices");
    znnsPrivilegedAllow(TRUE);
    EXPECT_EQ(under(document, "stat -c '%F %a %u %g %t %T' /dev/net/tun; stat -c %F /dev/pipe"),
              "character special file 660 1 2 a c8\nfifo\n");
    refused(R"({"linux":{"devices":[{"path":"/tun","type":"c","major":10,"minor":200}]}})", ENOTSUP,
            "linux.devices");
}

TEST_F(Settings, ADeviceIsNotCreatedThroughALinkOutOfDev)
{
    znnsPrivilegedAllow(TRUE);
    const nsid_t ns = configured(
        R"({"linux":{"devices":[{"path":"/dev/out/x","type":"c","major":1,"minor":3}]}})");
    ASSERT_GE(ns, 0) << reason_;
    EXPECT_EQ(run(ns, "ln -s /tmp /dev/out; readlink /dev/out"), "/tmp\n");
    EXPECT_EQ(znnsSeal(ns, nullptr, 0), ERROR);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_FALSE(fs::exists(root_ + "/tmp/x"));
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Settings, KernelParametersOfOwnNamespacesAreSet)
{
    const std::string before = read_file("/proc/sys/kernel/shmmni");
    EXPECT_EQ(under(R"({"linux":{"sysctl":{"net.ipv4.ip_forward":"1","kernel.shmmni":"77"}}})",
                    "cat /proc/sys/net/ipv4/ip_forward /proc/sys/kernel/shmmni"),
              "1\n77\n");
    EXPECT_EQ(read_file("/proc/sys/kernel/shmmni"), before);
}

// ---------------------------------------------------------------- programs and streams

TEST_F(Settings, AProgramNameWithoutASlashIsLookedUpInThePathOfItsEnvironment)
{
    const nsid_t ns = rooted();
    znSpawnAttr attr;
    znSpawnAttrInit(&attr);
    znSpawnAttrSetNamespace(&attr, ns);
    std::array<char*, 2> argv = {const_cast<char*>("true"), nullptr};
    const auto result = [&](const char* path, const char* program) {
        std::array<char*, 2> envp = {const_cast<char*>(path), nullptr};
        argv[0] = const_cast<char*>(program);
        pid_t pid = -1;
        if (znSpawn(&pid, (root_ + "/etc/" + program).c_str(), &attr, argv.data(),
                    path != nullptr ? envp.data() : nullptr) != OK)
            return errno;
        return wait(pid) == 0 ? 0 : -1;
    };
    EXPECT_EQ(result("PATH=/nowhere::/etc:/bin", "true"), 0);
    EXPECT_EQ(result("PATH=/nowhere", "true"), ENOENT);
    EXPECT_EQ(result(nullptr, "true"), ENOENT);
    EXPECT_EQ(result("PATH=/bin", "sub/true"), ENOENT) << "a name with a slash is a path";
    std::ofstream(root_ + "/tmp/true") << "not executable";
    EXPECT_EQ(result("PATH=/tmp", "true"), EACCES);
    EXPECT_EQ(result("PATH=/tmp:/bin", "true"), 0);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Settings, AUserCanReopenPipesThatAreItsStreams)
{
    const nsid_t ns = sealed(R"({"process":{"user":{"uid":1000,"gid":1000}}})");
    EXPECT_EQ(written_to_reopened_output(ns), "again\n");
    EXPECT_EQ(exit_, 0);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Settings, APseudoTerminalOfItsOwnIsTheControllingTerminal)
{
    const nsid_t ns = rooted();
    int master = -1;
    int slave = -1;
    ASSERT_EQ(::openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    const znc::UniqueFd near(master);
    const znc::UniqueFd far(slave);
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
    const znc::UniqueFd keep(::fcntl(0, F_DUPFD_CLOEXEC, 10));
    ::dup2(slave, 0);
    const std::string out = run(ns, "echo here >/dev/tty && echo opened");
    if (keep)
        ::dup2(keep.get(), 0);
    else
        ::close(0);
    EXPECT_EQ(out, "opened\n");
    std::array<char, 16> text = {};
    EXPECT_GT(::read(master, text.data(), text.size()), 0);
    EXPECT_STREQ(text.data(), "here\r\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

// ---------------------------------------------------------------- control from outside

TEST_F(Settings, ANamespaceIsFoundByItsNameWhileItExists)
{
    EXPECT_EQ(znnsFind("web"), -1);
    EXPECT_EQ(errno, ESRCH);
    const nsid_t ns = rooted();
    EXPECT_EQ(znnsFind("web"), ns);
    EXPECT_EQ(znnsFind("we"), -1);
    const pid_t holder = znnsHolder(ns);
    ASSERT_GT(holder, 0);
    EXPECT_EQ(run(ns, "readlink /proc/self/ns/net"),
              namespace_of(std::to_string(holder), "net") + "\n");
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_EQ(znnsFind("web"), -1);
    EXPECT_EQ(znnsHolder(ns), -1);
    EXPECT_EQ(errno, ESRCH);
}

} // namespace
