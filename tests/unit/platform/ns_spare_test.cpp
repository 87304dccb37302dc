// Tests of spare namespaces: that they are used, that a namespace made of one is like any other,
// and what happens when they cannot be made or have died.
#include "configured_world.hpp"
#include "process_limit.hpp"
#include "spare_processes.hpp"
#include "zarnel/ns_control.h"

#include <csignal>
#include <sched.h>
#include <set>
#include <sys/resource.h>

using namespace namespace_world;
using spare_processes::children_of;

namespace {

std::set<pid_t> spares()
{
    return spare_processes::named(::getpid(), "zn-spare");
}

std::set<pid_t> starters()
{
    return spare_processes::named(::getpid(), "zn-starter");
}

// The letter of the state; 0 if the process does not exist.
char state_of(pid_t pid)
{
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    const std::size_t at = stat.rfind(") ");
    return at == std::string::npos ? '\0' : stat[at + 2];
}

bool exists(pid_t pid)
{
    return ::kill(pid, 0) == 0;
}

// The lines, sorted, without the first `fields` words of each.
std::multiset<std::string> lines_without(const std::string& text, int fields)
{
    std::multiset<std::string> found;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        std::size_t at = 0;
        for (int i = 0; i < fields; i++)
            at = line.find(' ', at) + 1;
        found.insert(line.substr(at));
    }
    return found;
}

class Spares : public Configured {
  protected:
    void TearDown() override
    {
        znnsSparesSet(0);
        leave_disk();
        Configured::TearDown();
    }

    // Waits until there are `count` spares that can be used.
    static bool make(unsigned count)
    {
        znnsSparesSet(count);
        return eventually([count] {
            znnsSparesMake();
            return spares().size() == count && all_are_known();
        });
    }
    // Whether this process has a socket of each child, and all spares wait for requests.
    static bool all_are_known()
    {
        std::size_t sockets = 0;
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            if (fs::read_symlink(entry.path(), error).string().starts_with("socket:"))
                sockets++;
        }
        const std::set<pid_t> all = spares();
        return sockets == children() &&
               std::all_of(all.begin(), all.end(), [](pid_t pid) { return state_of(pid) == 'S'; });
    }
    static pid_t only_spare()
    {
        const std::set<pid_t> all = spares();
        EXPECT_EQ(all.size(), 1U);
        return all.empty() ? -1 : *all.begin();
    }
};

} // namespace

TEST_F(Spares, NoneAreMadeUnlessTheyAreAskedFor)
{
    znnsSparesMake();
    const nsid_t ns = rooted();
    znnsSparesMake();
    EXPECT_EQ(children(), 1U) << "the keeper";
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Spares, OneIsUsedForANamespaceAndReplaced)
{
    ASSERT_TRUE(make(1));
    const pid_t spare = only_spare();
    const nsid_t ns = rooted();
    EXPECT_EQ(znnsHolder(ns), spare);
    EXPECT_EQ(read_file("/proc/" + std::to_string(spare) + "/comm"), "zn-keeper\n");
    EXPECT_TRUE(spares().empty());
    ASSERT_TRUE(make(1));
    EXPECT_NE(only_spare(), spare);
    EXPECT_EQ(run(ns, "echo alive"), "alive\n");
    EXPECT_FALSE(in_use(ns));
    EXPECT_EQ(znnsDelete(ns), OK);
    const auto ended = [spare] { return !exists(spare) || state_of(spare) == 'Z'; };
    EXPECT_TRUE(eventually(ended)); // a keeper that ends late is reaped later
}

TEST_F(Spares, ANamespaceOfASpareIsLikeAnyOther)
{
    const char* const commands[] = {
        "hostname; ls /; ls -l /dev /dev/pts | grep -v ':'; cat /proc/sys/kernel/domainname",
        "cat /proc/1/comm /proc/1/cgroup; ls /proc/1/fd 2>&1; cat /proc/net/dev; ls /dev/shm",
        "ls /sys/firmware /proc/acpi /proc/scsi 2>&1; cat /proc/kcore | wc -c; cat /proc/keys",
        "echo x > /proc/sys/kernel/domainname; echo $?; touch /sys/x /proc/x; umask; nice",
        "grep -E 'Cap|Seccomp|NoNew|Uid|Gid|Cpus_allowed|SigBlk' /proc/self/status"};
    const auto observe = [&](nsid_t ns) {
        std::vector<std::multiset<std::string>> seen;
        // without the ids of a mount and of its parent, and the device number
        seen.push_back(lines_without(run(ns, "cat /proc/self/mountinfo"), 3));
        for (const char* command : commands)
            seen.push_back(lines_without(run(ns, command), 0));
        EXPECT_EQ(znnsDelete(ns), OK);
        return seen;
    };
    const auto usual = observe(rooted());
    EXPECT_GT(usual[0].size(), 8U);
    ASSERT_TRUE(make(1));
    const pid_t spare = only_spare();
    const nsid_t ns = rooted();
    ASSERT_EQ(znnsHolder(ns), spare);
    EXPECT_EQ(observe(ns), usual);
}

TEST_F(Spares, TheRootNeedsNoDirectoriesForTheMountsThatWereMadeAhead)
{
    for (const char* name : {"/proc", "/dev", "/sys"})
        fs::remove_all(root_ + name);
    ASSERT_TRUE(make(1));
    const nsid_t ns = rooted();
    EXPECT_EQ(run(ns, "for d in proc dev sys covers; do test -e /$d && echo $d; done"), "");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Spares, ADeadSpareIsNotUsed)
{
    ASSERT_TRUE(make(1));
    const pid_t spare = only_spare();
    ASSERT_EQ(::kill(spare, SIGKILL), 0);
    ASSERT_TRUE(eventually([spare] { return state_of(spare) == 'Z'; }));
    const nsid_t ns = rooted();
    EXPECT_NE(znnsHolder(ns), spare);
    EXPECT_EQ(run(ns, "echo alive"), "alive\n");
    EXPECT_EQ(znnsDelete(ns), OK);
    ASSERT_TRUE(make(1));
    EXPECT_NE(only_spare(), spare);
}

TEST_F(Spares, AStoppedSpareOnlyDelaysANamespace)
{
    znnsSparesSet(1);
    znnsSparesMake();
    ASSERT_TRUE(eventually([] { return spares().size() == 1; }));
    const pid_t starter = *starters().begin();
    ASSERT_EQ(::kill(starter, SIGSTOP), 0);
    const nsid_t first = rooted();
    const nsid_t second = rooted();
    znnsSparesMake(); // asks for what does not come
    const nsid_t third = rooted();
    EXPECT_EQ(run(third, "echo alive"), "alive\n");
    for (const nsid_t ns : {first, second, third})
        EXPECT_EQ(znnsDelete(ns), OK);
    ASSERT_EQ(::kill(starter, SIGCONT), 0);
    EXPECT_TRUE(make(1));
}

TEST_F(Spares, AnotherStarterTakesThePlaceOfADeadOne)
{
    ASSERT_TRUE(make(1));
    const pid_t starter = *starters().begin();
    ASSERT_EQ(::kill(starter, SIGKILL), 0);
    EXPECT_EQ(znnsDelete(rooted()), OK) << "the spare is still good";
    ASSERT_TRUE(make(1));
    EXPECT_EQ(starters().count(starter), 0U);
    EXPECT_EQ(znnsDelete(rooted()), OK);
}

TEST_F(Spares, OtherSettingsDoNotUseOne)
{
    znnsPrivilegedAllow(TRUE);
    use_disk();
    const std::string all = R"({"type":"mount"},{"type":"pid"},{"type":"ipc"},{"type":"uts"})";
    const std::string users = R"(,"uidMappings":[{"containerID":0,"hostID":100000,"size":1000}])"
                              R"(,"gidMappings":[{"containerID":0,"hostID":100000,"size":1000}])";
    std::vector<std::string> others = {R"("namespaces":[)" + all + "]",
                                       R"("namespaces":[)" + all +
                                           R"(,{"type":"network","path":"/proc/self/ns/net"}])"};
    if (can_be_mapped(root_))
        others.push_back(R"("namespaces":[)" + all +
                         R"(,{"type":"network"},{"type":"cgroup"},{"type":"user"}])" + users);
    ASSERT_TRUE(make(1));
    const pid_t spare = only_spare();
    for (const std::string& linux : others) {
        const nsid_t ns = sealed(R"({"linux":{)" + linux + "}}");
        EXPECT_NE(znnsHolder(ns), spare) << linux;
        EXPECT_EQ(run(ns, "echo alive"), "alive\n") << linux;
        EXPECT_EQ(znnsDelete(ns), OK);
        EXPECT_EQ(only_spare(), spare) << linux;
    }
}

TEST_F(Spares, SettingsOfTheRootAreAppliedToASpare)
{
    ASSERT_TRUE(make(1));
    const pid_t spare = only_spare();
    const nsid_t ns = sealed(R"({"hostname":"other","root":{"path":"r","readonly":true},
        "linux":{"namespaces":[{"type":"mount"},{"type":"pid"},{"type":"ipc"},{"type":"uts"},
                               {"type":"network"},{"type":"cgroup"}],
                 "maskedPaths":["/bin/sh"],"sysctl":{"net.ipv4.ip_forward":"1"}}})");
    EXPECT_EQ(znnsHolder(ns), spare);
    EXPECT_EQ(mount(ns, "tmpfs", "/tmp", "tmpfs", {"size=64k"}), OK);
    EXPECT_EQ(znnsDelete(ns), OK);
    ASSERT_TRUE(make(1));
    znnsPrivilegedAllow(TRUE); // what is hidden by default is visible
    const nsid_t open = sealed(R"({"linux":{"maskedPaths":[],"readonlyPaths":[]}})");
    const std::string found = run(open, "grep -c ' /proc/' /proc/self/mountinfo");
    EXPECT_EQ(found, "0\n");
    EXPECT_EQ(znnsDelete(open), OK);
}

TEST_F(Spares, AreNotMoreThanTheLimit)
{
    znnsSparesSet(1000);
    const bool enough = eventually([] {
        znnsSparesMake();
        return spares().size() >= ZNNS_SPARES_MAX;
    });
    EXPECT_TRUE(enough);
    for (int i = 0; i < 50; i++)
        znnsSparesMake();
    EXPECT_EQ(spares().size(), static_cast<std::size_t>(ZNNS_SPARES_MAX));
    EXPECT_TRUE(make(2)) << "the others end";
    znnsSparesSet(0);
    EXPECT_EQ(children(), 0U);
}

TEST_F(Spares, EndWhenAllNamespacesEnd)
{
    ASSERT_TRUE(make(3));
    const std::set<pid_t> all = children_of(::getpid());
    EXPECT_EQ(all.size(), 4U);
    EXPECT_EQ(znnsShutdown(), 0);
    for (const pid_t pid : all)
        EXPECT_FALSE(exists(pid));
    znnsSparesSet(1); // asked for and not waited for
    znnsSparesMake();
    EXPECT_EQ(znnsShutdown(), 0);
    EXPECT_EQ(children(), 0U);
}

TEST_F(Spares, EndWithTheirOwner)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const pid_t owner = ::fork();
    if (owner == 0) {
        const bool made = make(2);
        const ssize_t written = ::write(ends[1], &made, sizeof made);
        for (;;)
            ::pause();
        ::_exit(static_cast<int>(written));
    }
    bool made = false;
    ASSERT_EQ(::read(ends[0], &made, sizeof made), static_cast<ssize_t>(sizeof made));
    EXPECT_TRUE(made);
    const std::set<pid_t> all = children_of(owner);
    EXPECT_EQ(all.size(), 3U);
    ::kill(owner, SIGKILL);
    wait(owner);
    for (const pid_t pid : all)
        EXPECT_TRUE(eventually([pid] { return state_of(pid) == '\0' || state_of(pid) == 'Z'; }))
            << pid;
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(Spares, AreNotUsedAfterTheProcessorsOfTheOwnerHaveChanged)
{
    cpu_set_t before;
    ASSERT_EQ(::sched_getaffinity(0, sizeof before, &before), 0);
    if (CPU_COUNT(&before) < 2)
        GTEST_SKIP() << "there is only one processor";
    ASSERT_TRUE(make(1));
    const pid_t spare = only_spare();
    cpu_set_t one = before;
    for (int cpu = 0; CPU_COUNT(&one) > 1; cpu++)
        CPU_CLR(static_cast<std::size_t>(cpu), &one);
    ASSERT_EQ(::sched_setaffinity(0, sizeof one, &one), 0);
    const nsid_t ns = rooted();
    EXPECT_NE(znnsHolder(ns), spare);
    cpu_set_t found;
    EXPECT_EQ(::sched_getaffinity(znnsHolder(ns), sizeof found, &found), 0);
    EXPECT_TRUE(CPU_EQUAL(&found, &one));
    EXPECT_TRUE(make(1));
    EXPECT_EQ(::sched_getaffinity(only_spare(), sizeof found, &found), 0);
    EXPECT_TRUE(CPU_EQUAL(&found, &one));
    ::sched_setaffinity(0, sizeof before, &before);
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Spares, AreReplacedAfterALimitOfTheOwnerHasChanged)
{
    ASSERT_TRUE(make(1));
    const pid_t spare = only_spare();
    struct rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_CORE, &before), 0);
    const struct rlimit changed = {before.rlim_cur == 4096 ? 8192U : 4096U, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_CORE, &changed), 0);
    EXPECT_TRUE(eventually([spare] {
        znnsSparesMake();
        return spares().count(spare) == 0;
    }));
    EXPECT_EQ(::setrlimit(RLIMIT_CORE, &before), 0);
}

TEST_F(Spares, AMissingDescriptorIsNoError)
{
    struct rlimit before = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    for (rlim_t more = 0; more < 40; more++) {
        const struct rlimit few = {open_descriptors() + more, before.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
        znnsSparesSet(3);
        for (int i = 0; i < 20; i++)
            znnsSparesMake();
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
        znnsSparesSet(0);
        EXPECT_EQ(children(), 0U) << more;
        EXPECT_EQ(open_descriptors(), descriptors_) << more;
    }
}
