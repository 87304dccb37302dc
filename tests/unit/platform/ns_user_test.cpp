// Tests of containers with a user namespace, in real namespaces.

#include "configured_world.hpp"
#include "zarnel/ns_control.h"
#include "zarnel/overlay.h"

#include <set>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>

using namespace namespace_world;

namespace {

constexpr unsigned kRoot = 700000; // the host's id of the container's root

constexpr const char* kMapped = R"("namespaces":[{"type":"mount"},{"type":"pid"},{"type":"ipc"},)"
                                R"({"type":"uts"},{"type":"network"},{"type":"user"}],)"
                                R"("uidMappings":[{"containerID":0,"hostID":700000,"size":65536}],)"
                                R"("gidMappings":[{"containerID":0,"hostID":700000,"size":65536}])";

std::string with(const std::string& linux_members, const std::string& others = "")
{
    return R"({"linux":{)" + linux_members + "}" + (others.empty() ? "" : "," + others) + "}";
}

struct stat look(const std::string& path)
{
    struct stat st = {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st;
}

class Users : public Configured {
  protected:
    void SetUp() override
    {
        Configured::SetUp();
        use_disk();
        if (!can_be_mapped(root_))
            GTEST_SKIP() << root_ << " cannot be id-mapped";
        EXPECT_EQ(znnsShutdown(), 0);
    }
    void TearDown() override
    {
        znnsUsersMap(FALSE);
        leave_disk();
        Configured::TearDown();
    }
};

// ---------------------------------------------------------------- owners of files

TEST_F(Users, OwnersAreTranslatedBothWays)
{
    const nsid_t ns = sealed(with(kMapped));
    uid_t uid = 12;
    gid_t gid = 34;
    ASSERT_EQ(znnsOwnerGet(ns, &uid, &gid), OK);
    EXPECT_EQ(uid, kRoot + 12);
    EXPECT_EQ(gid, kRoot + 34);
    ASSERT_EQ(znnsOwnerInsideGet(ns, &uid, &gid), OK);
    EXPECT_EQ(uid, 12U);
    EXPECT_EQ(gid, 34U);
    uid = 65536;
    EXPECT_EQ(znnsOwnerGet(ns, &uid, &gid), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(gid, 34U);
}

TEST_F(Users, WithoutAUserNamespaceOwnersAreTheSame)
{
    const nsid_t ns = sealed("{}");
    uid_t uid = 12;
    gid_t gid = 34;
    EXPECT_EQ(znnsOwnerGet(ns, &uid, &gid), OK);
    EXPECT_EQ(znnsOwnerInsideGet(ns, &uid, &gid), OK);
    EXPECT_EQ(uid, 12U);
    EXPECT_EQ(gid, 34U);
    EXPECT_EQ(znnsOwnerGet(-5, &uid, &gid), ERROR);
    EXPECT_EQ(errno, ESRCH);
}

// The root is id-mapped: the host's root does not exist in it and cannot create files.
TEST_F(Users, FilesAreCreatedInTheRootAsItsOwner)
{
    const nsid_t ns = sealed(with(kMapped));
    const znc::UniqueFd root(znnsRootOpen(ns));
    ASSERT_TRUE(root);
    EXPECT_EQ(::mkdirat(root.get(), "as-root-of-the-host", 0700), -1);
    EXPECT_EQ(errno, EOVERFLOW);
    std::thread([&] {
        ASSERT_EQ(znnsFileOwnerSet(kRoot, kRoot), OK);
        EXPECT_EQ(::mkdirat(root.get(), "new", 0700), 0) << std::strerror(errno);
        EXPECT_EQ(::fchownat(root.get(), "new", kRoot + 12, kRoot + 34, 0), 0);
        EXPECT_EQ(::mkdirat(root.get(), "new/of-another-user", 0700), 0) << std::strerror(errno);
    }).join();
    EXPECT_EQ(look(root_ + "/new").st_uid, 12U);
    EXPECT_EQ(look(root_ + "/new").st_gid, 34U);
    EXPECT_EQ(look(root_ + "/new/of-another-user").st_uid, 0U);
}

// ---------------------------------------------------------------- programs

TEST_F(Users, RootOfTheContainerIsAnotherUserOfTheHost)
{
    const nsid_t ns = sealed(with(kMapped));
    const pid_t pid = start(ns, "id -u; cat /proc/self/uid_map; sleep 1000");
    ASSERT_GT(pid, 0) << std::strerror(errno);
    EXPECT_TRUE(
        eventually([] { return read_file("/tmp/out").find("65536") != std::string::npos; }));
    std::istringstream out(read_file("/tmp/out"));
    unsigned uid = 1;
    unsigned inside = 1;
    unsigned outside = 0;
    unsigned count = 0;
    out >> uid >> inside >> outside >> count;
    EXPECT_EQ(uid, 0U);
    EXPECT_EQ(inside, 0U);
    EXPECT_EQ(outside, kRoot);
    EXPECT_EQ(count, 65536U);
    EXPECT_EQ(look("/proc/" + std::to_string(pid)).st_uid, kRoot);
    EXPECT_EQ(znnsKill(ns, kKill), OK);
    wait(pid);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Users, CapabilitiesAreThoseOfTheConfigurationWithinTheUserNamespace)
{
    const std::string usual = under("{}", "grep -E '^Cap|^NoNew|^Seccomp:' /proc/self/status");
    EXPECT_EQ(under(with(kMapped), "grep -E '^Cap|^NoNew|^Seccomp:' /proc/self/status"), usual);
}

TEST_F(Users, NetworkIpcAndHostNamespacesBelongToTheUserNamespace)
{
    znnsPrivilegedAllow(TRUE);
    const std::string admin = R"("process":{"capabilities":{"bounding":["CAP_SYS_ADMIN"],)"
                              R"("permitted":["CAP_SYS_ADMIN"],"effective":["CAP_SYS_ADMIN"]}})";
    EXPECT_EQ(under(with(kMapped, admin), "hostname changed && hostname"), "changed\n");
}

TEST_F(Users, ParametersPathsAndTheReadOnlyRootAreApplied)
{
    const std::string more = R"(,"sysctl":{"net.ipv4.ip_default_ttl":"33","kernel.shmmni":"77"},)"
                             R"("maskedPaths":["/etc"],"readonlyPaths":["/proc/fs"])";
    const std::string out = under(with(kMapped + more, R"("root":{"path":"x","readonly":true})"),
                                  "cat /proc/sys/net/ipv4/ip_default_ttl /proc/sys/kernel/shmmni;"
                                  "ls /etc; (echo >/file) 2>/dev/null || echo read-only;"
                                  "echo 1 >/dev/shm/x && echo shm");
    EXPECT_EQ(out, "33\n77\nread-only\nshm\n");
}

TEST_F(Users, AProgramRunsAsAUserOfTheContainer)
{
    const std::string user = R"("process":{"user":{"uid":1000,"gid":100,"additionalGids":[5]}})";
    EXPECT_EQ(under(with(kMapped, user), "id -u; id -g; id -G"), "1000\n100\n100 5\n");
}

TEST_F(Users, StandardStreamsBelongToTheUserOfTheProgram)
{
    const nsid_t ns = sealed(with(kMapped, R"("process":{"user":{"uid":7,"gid":7}})"));
    EXPECT_EQ(written_to_reopened_output(ns), "again\n");
    EXPECT_EQ(exit_, 0);
    EXPECT_EQ(znnsDelete(ns), OK);
}

// ---------------------------------------------------------------- files

TEST_F(Users, OwnersOfARootDirectoryAreThoseOfTheContainerAndStayOnDisk)
{
    ASSERT_EQ(::mkdir((root_ + "/home").c_str(), 0755), 0);
    ASSERT_EQ(::chown((root_ + "/home").c_str(), 1000, 100), 0);
    const std::string out =
        under(with(kMapped), "stat -c %u:%g /home /bin; echo x >/made && stat -c %u:%g /made");
    EXPECT_EQ(out, "1000:100\n0:0\n0:0\n");
    EXPECT_EQ(look(root_ + "/made").st_uid, 0U);
    EXPECT_EQ(look(root_ + "/home").st_uid, 1000U);
}

TEST_F(Users, FilesOfTheHostsRootCannotBeChangedThroughABind)
{
    const std::string hosts = place_ + "/hosts";
    fs::create_directories(hosts);
    std::ofstream(hosts + "/file") << "host\n";
    const nsid_t ns = configured(with(kMapped));
    ASSERT_GE(ns, 0) << reason_;
    ASSERT_EQ(mount(ns, hosts.c_str(), "/mnt", "bind", {}), OK) << std::strerror(errno);
    EXPECT_EQ(run(ns, "cat /mnt/file; (echo no >/mnt/file) 2>/dev/null || echo refused;"
                      "rm /mnt/file 2>/dev/null || echo refused;"
                      "touch /mnt/new 2>/dev/null || echo refused;"
                      "chown 0 /mnt/file 2>/dev/null || echo refused"),
              "host\nrefused\nrefused\nrefused\nrefused\n");
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_EQ(read_file(hosts + "/file"), "host\n");
    fs::remove_all(hosts);
}

TEST_F(Users, AnIdMappedBindHasTheOwnersOfTheContainer)
{
    const std::string hosts = place_ + "/hosts";
    fs::create_directories(hosts);
    const nsid_t ns = configured(with(kMapped));
    ASSERT_GE(ns, 0) << reason_;
    ASSERT_EQ(mount(ns, hosts.c_str(), "/mnt", "bind", {"idmap"}), OK) << std::strerror(errno);
    EXPECT_EQ(run(ns, "echo x >/mnt/new && stat -c %u /mnt/new"), "0\n");
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_EQ(look(hosts + "/new").st_uid, 0U);
    fs::remove_all(hosts);
}

TEST_F(Users, AnIdMappedBindNeedsAUserNamespace)
{
    const nsid_t ns = rooted();
    EXPECT_EQ(mount(ns, "/tmp", "/mnt", "bind", {"idmap"}), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mount(ns, "tmpfs", "/mnt", "tmpfs", {"idmap"}), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Users, NewFileSystemsAndMountPointsBelongToTheContainersRoot)
{
    const nsid_t ns = configured(with(kMapped));
    ASSERT_GE(ns, 0) << reason_;
    ASSERT_EQ(mount(ns, "tmpfs", "/made/scratch", "tmpfs", {"mode=700"}), OK);
    ASSERT_EQ(mount(ns, "tmpfs", "/theirs", "tmpfs", {"mode=700", "uid=7", "gid=8"}), OK);
    EXPECT_EQ(run(ns, "stat -c %u:%g /made /made/scratch /theirs /dev /dev/null;"
                      "echo x >/made/scratch/x && echo written; echo x >/dev/null && echo null"),
              "0:0\n0:0\n7:8\n0:0\n0:0\nwritten\nnull\n");
    EXPECT_EQ(mount(ns, "tmpfs", "/else", "tmpfs", {"uid=70000"}), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Users, DevicesBelongToUsersOfTheContainer)
{
    znnsPrivilegedAllow(TRUE);
    const std::string device =
        R"(,"devices":[{"path":"/dev/sink","type":"c","major":1,"minor":3,"uid":5,"gid":6}])";
    EXPECT_EQ(
        under(with(kMapped + device), "stat -c %u:%g /dev/sink; echo x >/dev/sink && echo ok"),
        "5:6\nok\n");
}

TEST_F(Users, AWritableDeviceShowsTheOwnersOfItsLayers)
{
    if (znOvlInit() == FALSE)
        GTEST_SKIP() << "no overlayfs";
    mounts_ = read_file("/proc/self/mountinfo");
    const std::string top = place_ + "/layers/top";
    const std::string upper = place_ + "/layers/own/upper";
    fs::create_directories(top + "/etc");
    fs::create_directories(upper);
    ASSERT_EQ(::chown((top + "/etc").c_str(), 3, 4), 0);
    const std::string bottom = root_;
    const std::array<const char*, 2> stack = {top.c_str(), bottom.c_str()};
    ASSERT_EQ(znOvlDevCreate("/overlay/image", stack.data(), 2, FALSE), OK);
    const std::array<const char*, 2> dirs = {upper.c_str(), "/overlay/image"};
    ASSERT_EQ(znOvlDevCreate("/overlay/web", dirs.data(), 2, TRUE), OK) << std::strerror(errno);
    root_ = "/overlay/web";
    const nsid_t ns = configured(with(kMapped));
    EXPECT_GE(ns, 0) << reason_;
    EXPECT_EQ(run(ns, "stat -c %u:%g / /bin /etc; echo x >/made && stat -c %u /made;"
                      "echo y >>/bin/copied && chown 9 /etc && stat -c %u:%g /etc"),
              "0:0\n0:0\n3:4\n0\n9:4\n");
    EXPECT_EQ(look(upper + "/made").st_uid, kRoot);
    EXPECT_EQ(look(upper + "/etc").st_uid, kRoot + 9);
    EXPECT_EQ(look(top + "/etc").st_uid, 3U);
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_FALSE(fs::exists("/overlay/web"));
    EXPECT_EQ(znOvlDevRemove("/overlay/image"), OK);
    fs::remove_all(place_ + "/layers");
}

// ---------------------------------------------------------------- each container its own users

TEST_F(Users, ContainersGetUsersThatNoOtherHas)
{
    znnsUsersMap(TRUE);
    std::set<std::string> seen;
    std::vector<nsid_t> all;
    for (int i = 0; i < 8; i++) {
        const nsid_t ns = sealed("{}");
        std::istringstream map(run(ns, "cat /proc/self/uid_map"));
        std::string inside;
        std::string outside;
        std::string count;
        map >> inside >> outside >> count;
        EXPECT_EQ(inside, "0");
        EXPECT_EQ(count, "65536");
        EXPECT_GE(std::stoul(outside), 0x30000000UL);
        EXPECT_TRUE(seen.insert(outside).second) << outside;
        all.push_back(ns);
    }
    for (const nsid_t ns : all)
        EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Users, MappingsOfAConfigurationStay)
{
    znnsUsersMap(TRUE);
    EXPECT_NE(under(with(kMapped), "cat /proc/self/uid_map").find(" 700000 "), std::string::npos);
}

TEST_F(Users, ADocumentThatNamesNoUserNamespaceGetsOneAnyway)
{
    znnsUsersMap(TRUE);
    const std::string out =
        under(R"({"linux":{"namespaces":[{"type":"mount"},{"type":"pid"},{"type":"ipc"},)"
              R"({"type":"uts"},{"type":"network"}]}})",
              "readlink /proc/self/ns/user");
    EXPECT_NE(out, fs::read_symlink("/proc/self/ns/user").string() + "\n");
}

// ---------------------------------------------------------------- refused

TEST_F(Users, UnmappedIdsAreRefusedByName)
{
    refused(with(kMapped, R"("process":{"user":{"uid":65536,"gid":0}})"), EINVAL,
            "process.user.uid");
    refused(with(kMapped, R"("process":{"user":{"uid":0,"gid":65536}})"), EINVAL,
            "process.user.gid");
    refused(with(kMapped, R"("process":{"user":{"uid":0,"gid":0,"additionalGids":[70000]}})"),
            EINVAL, "process.user.additionalGids");
    const std::string start = R"("namespaces":[{"type":"mount"},{"type":"pid"},{"type":"ipc"},)"
                              R"({"type":"uts"},{"type":"network"},{"type":"user"}],)";
    refused(with(start + R"("uidMappings":[{"containerID":1,"hostID":700000,"size":10}],)"
                         R"("gidMappings":[{"containerID":0,"hostID":700000,"size":10}])"),
            EINVAL, "linux.uidMappings");
    refused(with(start + R"("uidMappings":[{"containerID":0,"hostID":700000,"size":10}],)"
                         R"("gidMappings":[{"containerID":1,"hostID":700000,"size":10}])"),
            EINVAL, "linux.gidMappings");
}

TEST_F(Users, AUserNamespaceByPathIsRefused)
{
    znnsPrivilegedAllow(TRUE);
    refused(R"({"linux":{"namespaces":[{"type":"mount"},{"type":"pid"},{"type":"ipc"},)"
            R"({"type":"uts"},{"type":"network"},{"type":"user","path":"/proc/self/ns/user"}]}})",
            ENOTSUP, "linux.namespaces");
}

// ---------------------------------------------------------------- end

TEST_F(Users, NothingIsLeftOfAnOwnerThatDied)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const pid_t owner = ::fork();
    ASSERT_GE(owner, 0);
    if (owner == 0) {
        const nsid_t ns = znnsCreateConfigured(kFlags, "web", with(kMapped).c_str(), nullptr, 0);
        const bool made = ns >= 0 && znnsRootfsCreate(ns, root_.c_str(), "web") == OK;
        if (::write(ends[1], made ? "y" : "n", 1) != 1)
            ::_exit(1);
        for (;;)
            ::pause();
    }
    char made = 0;
    EXPECT_EQ(::read(ends[0], &made, 1), 1);
    EXPECT_EQ(made, 'y');
    // Others may run tests of their own.
    std::vector<fs::path> holders;
    const std::string parent = "PPid:\t" + std::to_string(owner) + "\n";
    for (const auto& entry : fs::directory_iterator("/proc"))
        if (read_file(entry.path() / "comm") == "zn-holder\n" &&
            read_file(entry.path() / "status").find(parent) != std::string::npos)
            holders.push_back(entry.path());
    ASSERT_EQ(holders.size(), 1U);
    ::kill(owner, SIGKILL);
    wait(owner);
    EXPECT_TRUE(eventually([&] { return read_file(holders[0] / "comm") != "zn-holder\n"; }));
    EXPECT_EQ(znnsRecover(), 0);
    ::close(ends[0]);
    ::close(ends[1]);
}

} // namespace
