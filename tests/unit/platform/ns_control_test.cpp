// Tests of suspending, measuring and limiting namespaces by their control groups, in real ones.

#include "cgroup/cgroup.hpp"
#include "namespace_world.hpp"
#include "ns_record.hpp"
#include "zarnel/ns_control.h"

using namespace namespace_world;

namespace {

class Control : public Namespaces {
  protected:
    void SetUp() override
    {
        if (zn::cgroup_version() == zn::CgroupVersion::kNone)
            GTEST_SKIP() << "this machine has no control groups that can be used";
        Namespaces::SetUp();
        ready_ = true;
    }
    void TearDown() override
    {
        if (ready_)
            Namespaces::TearDown();
    }

    // A program that appends to a file without end.
    pid_t counting(nsid_t ns)
    {
        const pid_t pid = start(ns, "while :; do echo x >>/tmp/count; sleep 0.01; done");
        EXPECT_GT(pid, 0);
        EXPECT_TRUE(eventually([this] { return count() > 0; }));
        return pid;
    }
    std::uintmax_t count()
    {
        std::error_code none;
        const std::uintmax_t size = fs::file_size(root_ + "/tmp/count", none);
        return none ? 0 : size;
    }

    std::string group_of(nsid_t ns)
    {
        zn::NsRecord record = {};
        EXPECT_EQ(zn::ns_record_read(ns, record), 0);
        return record.group;
    }

    bool ready_ = false;
};

bool exists(const std::string& group)
{
    zn::List<int> pids;
    return zn::cgroup_processes(group.c_str(), pids) == 0;
}

TEST_F(Control, FrozenProgramsStopAndGoOnWhenThawed)
{
    const nsid_t ns = rooted();
    const pid_t program = counting(ns);
    BOOL frozen = TRUE;
    EXPECT_EQ(znnsFrozen(ns, &frozen), OK);
    EXPECT_EQ(frozen, FALSE);
    ASSERT_EQ(znnsFreeze(ns, TRUE), OK) << std::strerror(errno);
    EXPECT_EQ(znnsFreeze(ns, TRUE), OK) << "twice";
    EXPECT_EQ(znnsFrozen(ns, &frozen), OK);
    EXPECT_EQ(frozen, TRUE);
    const std::uintmax_t before = count();
    ::usleep(100000);
    EXPECT_EQ(count(), before);
    ASSERT_EQ(znnsFreeze(ns, FALSE), OK);
    EXPECT_TRUE(eventually([&] { return count() > before; }));
    EXPECT_EQ(znnsDelete(ns), OK);
    wait(program);
}

// With cgroup v2 the program is created in its group. A spawner that entered the group itself would
// be one process more than the limit.
TEST_F(Control, ALimitOfOneProcessIsEnoughForTheProgram)
{
    if (zn::cgroup_version() != zn::CgroupVersion::kV2)
        GTEST_SKIP() << "processes can be created in groups of cgroup v2 only";
    const nsid_t ns = rooted();
    std::array<char, 200> reason = {};
    ASSERT_EQ(znnsLimitsSet(ns, R"({"pids":{"limit":1}})", reason.data(), reason.size()), OK)
        << reason.data();
    const pid_t program = start(ns, "exec sleep 1000");
    ASSERT_GT(program, 0) << std::strerror(errno);
    EXPECT_EQ(znnsDelete(ns), OK);
    wait(program);
}

TEST_F(Control, NoProgramIsStartedInAFrozenNamespace)
{
    const nsid_t ns = rooted();
    const pid_t program = counting(ns);
    ASSERT_EQ(znnsFreeze(ns, TRUE), OK);
    EXPECT_EQ(start(ns, "true"), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(znnsDelete(ns), OK) << "it can be ended";
    EXPECT_EQ(wait(program), SIGKILL);
}

TEST_F(Control, FrozenNamespacesEndWithTheirOwner)
{
    const nsid_t ns = rooted();
    const pid_t program = counting(ns);
    ASSERT_EQ(znnsFreeze(ns, TRUE), OK);
    znnsKillAll();
    EXPECT_EQ(wait(program), SIGKILL);
    EXPECT_EQ(znnsShutdown(), 0);
}

TEST_F(Control, UseCountsProcessesMemoryAndTime)
{
    const nsid_t ns = rooted();
    const pid_t program = counting(ns);
    ZN_NS_USE use = {};
    EXPECT_TRUE(
        eventually([&] { return znnsUseGet(ns, &use) == OK && use.cpuNs > 0 && use.memory > 0; }));
    EXPECT_GE(use.pids, 1U);
    EXPECT_LE(use.pids, 3U);
    EXPECT_EQ(use.pidsLimit, 4096U);
    EXPECT_EQ(use.memoryLimit, ZNNS_NO_LIMIT);
    EXPECT_EQ(use.oomKills, 0U);
    EXPECT_EQ(znnsDelete(ns), OK);
    wait(program);
    EXPECT_EQ(znnsUseGet(ns, &use), ERROR);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(Control, LimitsCanBeChangedAndErrorsNameTheField)
{
    const nsid_t ns = rooted();
    std::array<char, 200> reason = {};
    EXPECT_EQ(znnsLimitsSet(ns, R"({"pids":{"limit":7},"memory":{"limit":67108864}})",
                            reason.data(), reason.size()),
              OK)
        << reason.data();
    ZN_NS_USE use = {};
    ASSERT_EQ(znnsUseGet(ns, &use), OK);
    EXPECT_EQ(use.pidsLimit, 7U);
    EXPECT_EQ(use.memoryLimit, 67108864U);
    EXPECT_EQ(znnsLimitsSet(ns, R"({"pids":{"limit":"x"}})", reason.data(), reason.size()), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(std::string(reason.data()).substr(0, 21), "resources.pids.limit:");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Control, ProgramsInheritTheGroupNotTheCallers)
{
    const nsid_t ns = rooted();
    const pid_t program = counting(ns);
    zn::List<int> pids;
    ASSERT_EQ(zn::cgroup_processes(group_of(ns).c_str(), pids), 0);
    bool found = false;
    for (const int pid : pids) {
        found = found || pid == program;
        EXPECT_NE(pid, ::getpid());
        EXPECT_NE(pid, znnsHolder(ns));
    }
    EXPECT_TRUE(found);
    EXPECT_EQ(znnsDelete(ns), OK);
    wait(program);
}

TEST_F(Control, TheGroupIsRemovedWithTheNamespace)
{
    const nsid_t ns = znnsCreateConfigured(kFlags, "web", "{}", nullptr, 0);
    ASSERT_EQ(znnsRootfsCreate(ns, root_.c_str(), "web"), OK);
    const std::string group = group_of(ns);
    EXPECT_EQ(group.rfind("/zarnel/web-", 0), 0U) << group;
    ASSERT_TRUE(exists(group));
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_FALSE(exists(group));
}

TEST_F(Control, AMountOfControlGroupsShowsTheContainersOwnAndCannotBeWritten)
{
    const nsid_t ns = rooted();
    for (const char* type : {"cgroup", "cgroup2"}) {
        ASSERT_EQ(mount(ns, type, "/sys/fs/cgroup", type, {"rw"}), OK) << std::strerror(errno);
        EXPECT_EQ(run(ns,
                      "cd /sys/fs/cgroup; test -e cgroup.procs || cd pids; echo $(cat pids.max);"
                      "grep -x $$ cgroup.procs >/dev/null && echo self; ls -d */ 2>/dev/null;"
                      "(echo max >pids.max) 2>/dev/null || echo refused;"
                      "mkdir below 2>/dev/null || echo refused"),
                  "4096\nself\nrefused\nrefused\n");
        EXPECT_EQ(znnsUmount(ns, "", type, "/sys/fs/cgroup", type, nullptr), OK);
        EXPECT_EQ(run(ns, "ls /sys/fs/cgroup"), "");
    }
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Control, GroupsOfTwoNamespacesDoNotOverlap)
{
    const auto in_group = [](const std::string& path) {
        const std::string document = R"({"linux":{"cgroupsPath":")" + path + "\"}}";
        return znnsCreateConfigured(kFlags, "web", document.c_str(), nullptr, 0);
    };
    const std::string own = "test-" + std::to_string(::getpid());
    const nsid_t first = in_group("/zarnel/" + own);
    ASSERT_GE(first, 0) << std::strerror(errno);
    for (const std::string& path : {"/zarnel/" + own, own, "//zarnel//" + own + "/below"}) {
        const nsid_t other = in_group(path);
        EXPECT_EQ(other, -1) << path;
        EXPECT_EQ(errno, path.starts_with("//") ? EPERM : EBUSY) << path;
    }
    const nsid_t below = in_group(own + "/below");
    EXPECT_EQ(below, -1);
    EXPECT_EQ(errno, EBUSY);
    for (const char* path : {"/zarnel/", "/zarnel//"}) {
        EXPECT_EQ(in_group(path), -1) << path;
        EXPECT_EQ(errno, EINVAL) << path;
    }
    const nsid_t beside = in_group(own + "2");
    EXPECT_GE(beside, 0) << std::strerror(errno);
    EXPECT_EQ(znnsDelete(beside), OK);
    EXPECT_EQ(znnsDelete(first), OK);
    const nsid_t again = in_group(own);
    EXPECT_GE(again, 0) << std::strerror(errno);
    EXPECT_EQ(znnsDelete(again), OK);
}

TEST_F(Control, TheGroupOfAnOwnerThatDiedIsRemovedByTheNext)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const znc::UniqueFd reader(ends[0]);
    const znc::UniqueFd writer(ends[1]);
    const pid_t owner = ::fork();
    ASSERT_GE(owner, 0);
    if (owner == 0) {
        const nsid_t ns = rooted();
        if (::write(writer.get(), &ns, sizeof ns) != sizeof ns)
            ::_exit(1);
        for (;;)
            ::pause();
    }
    nsid_t ns = -1;
    ASSERT_EQ(::read(reader.get(), &ns, sizeof ns), static_cast<ssize_t>(sizeof ns));
    const std::string group = group_of(ns);
    const pid_t program = counting(ns);
    ASSERT_EQ(znnsFreeze(ns, TRUE), OK) << "what is frozen does not die when its keeper does";
    ::kill(owner, SIGKILL);
    wait(owner);
    znnsRecover();
    EXPECT_EQ(wait(program), SIGKILL);
    EXPECT_TRUE(eventually([&] { return znnsRecover() == 0; }));
    EXPECT_FALSE(exists(group));
}

} // namespace
