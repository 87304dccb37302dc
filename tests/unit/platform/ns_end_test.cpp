// Tests of ending namespaces whose programs have not been reaped, one by one and many at once; and
// of their records on a full file system.
#include "namespace_world.hpp"
#include "ns_record.hpp"
#include "zarnel/overlay.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>

namespace fs = std::filesystem;
using namespace namespace_world;

namespace {

constexpr int kMany = 50;

bool is_zombie(pid_t pid)
{
    return read_file("/proc/" + std::to_string(pid) + "/stat").find(") Z ") != std::string::npos;
}

class NamespaceEnds : public Namespaces {
  protected:
    // Running programs, each in its own namespace, all children of this process.
    std::vector<pid_t> start_many()
    {
        std::vector<pid_t> programs;
        for (int i = 0; i < kMany; i++)
            programs.push_back(start(rooted(), "sleep 1000"));
        return programs;
    }
    void reap(const std::vector<pid_t>& programs)
    {
        for (const pid_t program : programs) {
            const int status = wait(program);
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
        }
    }
};

TEST_F(NamespaceEnds, UnreapedProgramsDoNotKeepTheOthersFromEnding)
{
    const std::vector<pid_t> programs = start_many();
    znnsKillAll();
    EXPECT_EQ(znnsShutdown(), kMany) << "their parent has not waited for them";
    for (const pid_t program : programs)
        EXPECT_TRUE(is_zombie(program));
    EXPECT_TRUE(fs::is_empty("/run/zarnel/ns"));
    reap(programs);
    EXPECT_EQ(znnsShutdown(), 0);
}

TEST_F(NamespaceEnds, AllProgramsOfADeadOwnerAreKilledEvenIfUnreaped)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    // the child creates the namespaces, this process starts the programs
    const pid_t owner = ::fork();
    if (owner == 0) {
        for (int i = 0; i < kMany; i++) {
            const nsid_t ns = rooted();
            if (::write(ends[1], &ns, sizeof ns) != sizeof ns)
                ::_exit(1);
        }
        for (;;)
            ::pause();
    }
    std::vector<pid_t> programs;
    for (int i = 0; i < kMany; i++) {
        nsid_t ns = -1;
        ASSERT_EQ(::read(ends[0], &ns, sizeof ns), static_cast<ssize_t>(sizeof ns));
        programs.push_back(start(ns, "sleep 1000"));
    }
    ::kill(owner, SIGKILL);
    wait(owner);
    EXPECT_EQ(znnsRecover(), kMany) << "their keepers end when we have waited for the programs";
    for (const pid_t program : programs)
        EXPECT_TRUE(eventually([program] { return is_zombie(program); }));
    EXPECT_TRUE(fs::is_empty("/run/zarnel/ns"));
    reap(programs);
    EXPECT_EQ(znnsRecover(), 0);
    ::close(ends[0]);
    ::close(ends[1]);
}

// ---------------------------------------------------------------- records

class FullRecords : public Namespaces {
  protected:
    void SetUp() override
    {
        Namespaces::SetUp();
        ASSERT_EQ(::mount("tmpfs", "/run/zarnel", "tmpfs", 0, "size=64k,nr_inodes=4,mode=700"), 0);
        fs::create_directories("/run/zarnel/ns");
        zn::NsRecord record = {1, 1, zn::Grant::kNone, zn::Entry::kOver, "/some/root"};
        while (zn::ns_record_write(next_, record) == 0)
            next_++;
        EXPECT_EQ(errno, ENOSPC);
    }
    void TearDown() override
    {
        ::umount("/run/zarnel");
        Namespaces::TearDown();
    }
    nsid_t next_ = 0;
};

TEST_F(FullRecords, ANamespaceWhoseRecordCannotBeWrittenIsNotCreated)
{
    const nsid_t ns = znnsCreate(kFlags);
    ASSERT_GE(ns, 0);
    EXPECT_EQ(znnsRootfsCreate(ns, root_.c_str(), "web"), ERROR);
    EXPECT_EQ(errno, ENOSPC);
    zn::NsRecord record = {};
    EXPECT_EQ(zn::ns_record_read(ns, record), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(znnsDelete(ns), ERROR) << "it is gone";
}

TEST_F(FullRecords, RecordsOfDeadOwnersAreRemovedToFreeSpace)
{
    EXPECT_EQ(znnsRecover(), 0);
    const nsid_t ns = rooted();
    EXPECT_EQ(run(ns, "echo alive"), "alive\n");
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Namespaces, AnIncompleteRecordOfAKilledWriterIsIgnoredAndRemoved)
{
    fs::create_directories("/run/zarnel/ns");
    std::ofstream("/run/zarnel/ns/.new-17") << "12";
    zn::NsRecord record = {1, 1, zn::Grant::kNone, zn::Entry::kOver, "/some/root"};
    EXPECT_EQ(zn::ns_record_read(17, record), -1);
    EXPECT_EQ(zn::ns_record_write(17, record), 0) << "it is no obstacle";
    EXPECT_EQ(zn::ns_record_write(17, record), -1);
    EXPECT_EQ(errno, EEXIST);
    std::ofstream("/run/zarnel/ns/.new-18") << "12";
    EXPECT_EQ(znnsRecover(), 0);
    EXPECT_TRUE(fs::is_empty("/run/zarnel/ns"));
}

// Returns the kernel's count of read calls of the process; -1 if it is not available.
long reads_of(pid_t pid)
{
    const std::string text = read_file("/proc/" + std::to_string(pid) + "/io");
    const std::size_t at = text.find("syscr: ");
    return at != std::string::npos ? std::stol(text.substr(at + 7)) : -1;
}

// Runs in a child of the test whose own children are in a new PID namespace: `count` of them end,
// and the last one traces them and does not reap them.
[[noreturn]] void leave_dead_to_a_tracer(int count, int ready)
{
    std::vector<pid_t> dead;
    if (::fork() != 0) // the first process in the namespace creates the others
        ::_exit(0);
    for (int i = 0; i < count; i++) {
        const pid_t pid = ::fork();
        if (pid == 0)
            for (;;)
                ::pause();
        dead.push_back(pid);
    }
    if (::fork() != 0)
        ::_exit(0);
    for (const pid_t pid : dead)
        if (::ptrace(PTRACE_SEIZE, pid, nullptr, nullptr) != 0 || ::kill(pid, SIGKILL) != 0)
            ::_exit(1);
    for (const pid_t pid : dead) {
        siginfo_t info;
        if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT | __WALL) != 0)
            ::_exit(1);
    }
    if (::write(ready, "", 1) != 1)
        ::_exit(1);
    for (;;)
        ::pause();
}

TEST_F(NamespaceEnds, ALivingProcessIsFoundWithoutReadingAllZombiesBeforeIt)
{
    constexpr int kDead = 600;
    if (reads_of(getpid()) < 0)
        GTEST_SKIP() << "this kernel does not count reads";
    const nsid_t ns = rooted();
    std::istringstream record(read_file("/run/zarnel/ns/" + std::to_string(ns)));
    pid_t keeper = -1;
    ASSERT_TRUE(record >> keeper);
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const znc::UniqueFd reader(ends[0]);
    znc::UniqueFd writer(ends[1]);
    const pid_t maker = ::fork();
    if (maker == 0) {
        const znc::UniqueFd space(
            ::open(("/proc/" + std::to_string(keeper) + "/ns/pid").c_str(), O_RDONLY | O_CLOEXEC));
        if (::setns(space.get(), CLONE_NEWPID) != 0)
            ::_exit(1);
        leave_dead_to_a_tracer(kDead, writer.get());
    }
    ASSERT_GT(maker, 0);
    EXPECT_EQ(wait(maker), 0);
    writer.reset();
    char byte;
    ASSERT_EQ(::read(reader.get(), &byte, 1), 1);
    const long before = reads_of(keeper);
    EXPECT_TRUE(in_use(ns));
    EXPECT_LT(reads_of(keeper) - before, kDead / 2);
    EXPECT_EQ(znnsDelete(ns), OK);
}

} // namespace
