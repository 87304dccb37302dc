// Tests of creating, entering, freezing and removing control groups, on the hierarchies that this
// machine has, and on its v2 hierarchy alone where it has both.
#include "cgroup_world.hpp"

#include "cgroup/cgroup_known.hpp"
#include "descriptors.hpp"
#include "platform/common/clock.hpp"

#include <algorithm>
#include <atomic>
#include <sched.h>
#include <sys/mount.h>

using namespace cgroup_world;

namespace {

using zn::CgroupVersion;

// A descriptor that leaks is found when a test ends.
class CgroupLife : public Cgroups, public testing::WithParamInterface<bool> {
  protected:
    void SetUp() override
    {
        Cgroups::SetUp();
        if (!IsSkipped() && GetParam() && !use_unified_only())
            GTEST_SKIP() << "this machine has no v2 hierarchy";
        descriptors_ = open_descriptors();
    }
    void TearDown() override
    {
        EXPECT_EQ(open_descriptors(), descriptors_);
        Cgroups::TearDown();
    }
    std::ptrdiff_t descriptors_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Hierarchies, CgroupLife, testing::Values(false, true),
                         [](const auto& which) { return which.param ? "V2Alone" : "All"; });

TEST_P(CgroupLife, GroupIsInEveryHierarchyAndAProcessEntersIt)
{
    ASSERT_EQ(create(), 0) << field();
    EXPECT_EQ(directories(in_, path_).size(), in_.all.size());
    zn::List<zn::Text> entries;
    ASSERT_EQ(zn::cgroup_entries(in_, path_.c_str(), entries), 0);
    ASSERT_EQ(entries.size(), in_.all.size());
    Child child(in_, path_, sleep_for_ever);
    ASSERT_TRUE(child.entered());
    std::istringstream groups(read_file("/proc/" + std::to_string(child.pid()) + "/cgroup"));
    std::size_t in = 0;
    for (std::string line; std::getline(groups, line);)
        in += line.size() > path_.size() && line.ends_with(path_) ? 1 : 0;
    EXPECT_EQ(in, in_.all.size());
}

TEST_P(CgroupLife, PathsThatLeaveOrNameNoGroupAreRefused)
{
    const std::string tooLong = "/" + std::string(zn::kCgroupPathMax, 'a');
    for (const char* path : {"", "/", "//", "/..", "/a/../..", "..", "/./a", "a/.", "/a/..",
                             tooLong.c_str(), static_cast<const char*>(nullptr)}) {
        zn::List<zn::Text> entries;
        zn::List<int> pids;
        zn::CgroupUse use;
        bool frozen = false;
        EXPECT_EQ(zn::cgroup_create(in_, path, {}, &field_), EINVAL);
        EXPECT_EQ(zn::cgroup_limit(in_, path, {}, &field_), EINVAL);
        EXPECT_EQ(zn::cgroup_entries(in_, path, entries), EINVAL);
        EXPECT_EQ(zn::cgroup_freeze(in_, path, true), EINVAL);
        EXPECT_EQ(zn::cgroup_frozen(in_, path, frozen), EINVAL);
        EXPECT_EQ(zn::cgroup_use(in_, path, use), EINVAL);
        EXPECT_EQ(zn::cgroup_processes(in_, path, pids), EINVAL);
        EXPECT_EQ(zn::cgroup_remove(in_, path), EINVAL);
    }
}

TEST_P(CgroupLife, EmptyComponentsOfAPathAreIgnored)
{
    ASSERT_EQ(zn::cgroup_create(in_, ("/" + top_ + "//web/").c_str(), {}, &field_), 0);
    EXPECT_EQ(directories(in_, path_).size(), in_.all.size());
}

TEST_P(CgroupLife, ControlFileIsNoGroup)
{
    ASSERT_EQ(create(), 0);
    path_ += "/cgroup.procs";
    EXPECT_EQ(create(), ENOTDIR);
    EXPECT_EQ(zn::cgroup_remove(in_, path_.c_str()), ENOTDIR);
}

TEST_P(CgroupLife, FailedCreationLeavesNothing)
{
    zn::Resources resources;
    zn::HugepageLimit limit;
    limit.size = znc::copy_text("../2MB");
    ASSERT_NE(resources.hugepages.append(std::move(limit)), nullptr);
    EXPECT_NE(create(resources), 0);
    EXPECT_EQ(field(), "hugepageLimits");
    EXPECT_EQ(directories(in_, top_), std::vector<std::string>());
}

TEST_P(CgroupLife, FailedCreationLeavesAParentThatAnotherGroupUses)
{
    const std::string other = top_ + "/other";
    ASSERT_EQ(zn::cgroup_create(in_, other.c_str(), {}, &field_), 0);
    zn::Resources resources;
    ASSERT_NE(resources.hugepages.append({}), nullptr);
    EXPECT_NE(create(resources), 0);
    EXPECT_EQ(directories(in_, other).size(), in_.all.size());
    EXPECT_EQ(directories(in_, path_), std::vector<std::string>());
}

TEST_P(CgroupLife, GroupWithAProcessInItOrBelowItIsNotTakenOver)
{
    ASSERT_EQ(create(), 0);
    {
        const Child child(in_, path_, sleep_for_ever);
        EXPECT_EQ(create(), EBUSY);
    }
    const std::string below = path_ + "/below";
    ASSERT_EQ(zn::cgroup_create(in_, below.c_str(), {}, &field_), 0);
    const Child child(in_, below, sleep_for_ever);
    ASSERT_TRUE(child.entered());
    EXPECT_EQ(create(), EBUSY);
    EXPECT_EQ(::kill(child.pid(), 0), 0);
}

TEST_P(CgroupLife, EmptyGroupIsTakenOverThawedAndWithoutGroupsBelowIt)
{
    const std::string below = path_ + "/below";
    ASSERT_EQ(zn::cgroup_create(in_, below.c_str(), {}, &field_), 0);
    ASSERT_EQ(zn::cgroup_freeze(in_, path_.c_str(), true), 0);
    ASSERT_EQ(create(), 0);
    EXPECT_EQ(directories(in_, below), std::vector<std::string>());
    Child child(in_, path_, [] { return 3; });
    EXPECT_TRUE(child.entered());
    EXPECT_EQ(child.code(), 3);
}

TEST_P(CgroupLife, GroupOfAServiceManagerIsCompletedInAllHierarchiesAndThawed)
{
    const std::string first = path_ + "/first";
    const std::string second = path_ + "/second";
    ASSERT_EQ(zn::cgroup_create(in_, first.c_str(), {}, &field_), 0);
    ASSERT_EQ(zn::cgroup_create(in_, second.c_str(), {}, &field_), 0);
    ASSERT_EQ(zn::cgroup_freeze(in_, second.c_str(), true), 0);
    for (std::size_t i = 1; i < in_.all.size(); i++)
        if ((in_.all[i].controllers & 1U << static_cast<unsigned>(zn::Controller::kFreezer)) == 0)
            fs::remove(in_.all[i].point.get() + second);
    const Child child(in_, first, sleep_for_ever);
    ASSERT_TRUE(child.entered());
    ASSERT_EQ(zn::cgroup_complete(in_, second.c_str(), child.pid(), {}, &field_), 0) << field();
    EXPECT_EQ(directories(in_, second).size(), in_.all.size());
    for (const std::string& directory : directories(in_, second))
        EXPECT_EQ(read_file(directory + "/cgroup.procs"), std::to_string(child.pid())) << directory;
    bool frozen = true;
    EXPECT_EQ(zn::cgroup_frozen(in_, second.c_str(), frozen), 0);
    EXPECT_FALSE(frozen);
}

TEST_P(CgroupLife, GroupThatAServiceManagerDidNotCreateIsNotCompleted)
{
    EXPECT_EQ(zn::cgroup_complete(in_, path_.c_str(), ::getpid(), {}, &field_), ENOENT);
    EXPECT_EQ(directories(in_, path_), std::vector<std::string>());
}

TEST_P(CgroupLife, ProcessesAreListedOnceWithThoseBelow)
{
    const std::string below = path_ + "/a/b";
    ASSERT_EQ(create(), 0);
    const Child first(in_, path_, sleep_for_ever);
    ASSERT_TRUE(first.entered());
    // On v2, no group may be given controllers while it has processes; made by hand, it has none.
    for (const std::string& directory : directories(in_, path_))
        fs::create_directories(directory + "/a/b");
    for (const std::string& directory : directories(in_, below))
        for (const char* file : {"cpuset.cpus", "cpuset.mems"})
            for (const char* group : {"/a/", "/a/b/"})
                if (directory.find("/cpuset/") != std::string::npos)
                    std::ofstream(directory.substr(0, directory.size() - 4) + group + file)
                        << read_file(directory.substr(0, directory.size() - 4) + "/" + file);
    const Child second(in_, below, sleep_for_ever);
    ASSERT_TRUE(second.entered());
    zn::List<int> pids;
    ASSERT_EQ(zn::cgroup_processes(in_, path_.c_str(), pids), 0);
    std::vector<int> wanted = {first.pid(), second.pid()};
    std::sort(wanted.begin(), wanted.end());
    EXPECT_EQ(std::vector<int>(pids.begin(), pids.end()), wanted);
}

TEST_P(CgroupLife, FrozenProcessesDoNotRunAndGoOnAfterThawing)
{
    ASSERT_EQ(create(), 0);
    const Shared<std::atomic<long>> count;
    const auto work = [&] {
        for (;;)
            ++*count;
        return 0;
    };
    const Child child(in_, path_, work);
    ASSERT_TRUE(child.entered());
    ASSERT_TRUE(eventually([&] { return *count > 0; }));
    bool frozen = true;
    EXPECT_EQ(zn::cgroup_frozen(in_, path_.c_str(), frozen), 0);
    EXPECT_FALSE(frozen);
    ASSERT_EQ(zn::cgroup_freeze(in_, path_.c_str(), true), 0);
    const long before = *count;
    EXPECT_EQ(zn::cgroup_frozen(in_, path_.c_str(), frozen), 0);
    EXPECT_TRUE(frozen);
    // Another process does in this time what the frozen one would do.
    EXPECT_EQ(in_child([] {
                  for (int i = 0; i < 200; i++)
                      ::sched_yield();
                  return 0;
              }),
              0);
    EXPECT_EQ(*count, before);
    ASSERT_EQ(zn::cgroup_freeze(in_, path_.c_str(), false), 0);
    EXPECT_TRUE(eventually([&] { return *count > before; }));
}

TEST_P(CgroupLife, ThawingBelowAFrozenGroupTimesOut)
{
    ASSERT_EQ(create(), 0);
    const Child child(in_, path_, sleep_for_ever);
    ASSERT_TRUE(child.entered());
    ASSERT_EQ(zn::cgroup_freeze(in_, top_.c_str(), true), 0);
    bool frozen = false;
    EXPECT_EQ(zn::cgroup_frozen(in_, path_.c_str(), frozen), 0);
    EXPECT_TRUE(frozen);
    EXPECT_EQ(zn::cgroup_freeze(in_, path_.c_str(), false), ETIMEDOUT);
    EXPECT_EQ(zn::cgroup_freeze(in_, top_.c_str(), false), 0);
}

TEST_P(CgroupLife, ProcessDoesNotFreezeOrRemoveItsOwnGroup)
{
    ASSERT_EQ(create(), 0);
    Child child(in_, path_, [&] {
        const bool good = zn::cgroup_freeze(in_, path_.c_str(), true) == EBUSY &&
                          zn::cgroup_remove(in_, path_.c_str()) == EBUSY;
        return good ? 0 : 1;
    });
    EXPECT_EQ(child.code(), 0);
}

TEST_P(CgroupLife, RemovalKillsProcessesThatAreForkedDuringIt)
{
    ASSERT_EQ(create(), 0);
    zn::Resources resources;
    const Child child(in_, path_, [] {
        for (int i = 0; i < 4; i++)
            ::fork();
        for (;;) {
            const pid_t pid = ::fork();
            if (pid == 0)
                ::_exit(0);
            if (pid > 0)
                ::waitpid(pid, nullptr, 0);
        }
        return 0;
    });
    ASSERT_TRUE(child.entered());
    EXPECT_EQ(zn::cgroup_remove(in_, path_.c_str()), 0);
    EXPECT_EQ(directories(in_, path_), std::vector<std::string>());
}

TEST_P(CgroupLife, FrozenProcessesAreRemovedWithTheirGroup)
{
    ASSERT_EQ(create(), 0);
    Child child(in_, path_, sleep_for_ever);
    ASSERT_EQ(zn::cgroup_freeze(in_, path_.c_str(), true), 0);
    EXPECT_EQ(zn::cgroup_remove(in_, path_.c_str()), 0);
    const int status = child.wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

TEST_P(CgroupLife, GroupsMadeInsideAreRemovedHoweverDeepAndMany)
{
    constexpr int kDepth = 300;
    constexpr int kWidth = 50;
    ASSERT_EQ(create(), 0);
    const std::string directory = directories(in_, path_).back();
    for (int i = 0; i < kWidth; i++)
        ASSERT_TRUE(fs::create_directory(directory + "/wide" + std::to_string(i)));
    std::string deep = directory;
    int depth = 0;
    std::error_code error;
    for (; depth < kDepth && fs::create_directory(deep += "/d", error); depth++) {
    }
    EXPECT_EQ(depth, kDepth) << error.message();
    EXPECT_EQ(zn::cgroup_remove(in_, path_.c_str()), 0);
    EXPECT_FALSE(fs::exists(directory));
}

TEST_P(CgroupLife, RemovalOfManyGroupsEndsAtItsDeadlineAndContinuesLater)
{
    ASSERT_EQ(create(), 0);
    const std::string directory = directories(in_, path_).back();
    ASSERT_TRUE(fs::create_directory(directory + "/left"));
    const znc::UniqueFd group(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    constexpr std::int64_t kLongAgo = 60 * zn::kNsPerSec;
    EXPECT_EQ(zn::subgroups_remove(group.get(), zn::now_ns() - kLongAgo), EBUSY);
    EXPECT_TRUE(fs::exists(directory + "/left"));
    EXPECT_EQ(zn::subgroups_remove(group.get(), zn::now_ns()), 0);
    EXPECT_FALSE(fs::exists(directory + "/left"));
}

TEST_P(CgroupLife, MissingGroupCountsAsRemovedAndFailsOtherwiseWithENOENT)
{
    zn::List<zn::Text> entries;
    zn::List<int> pids;
    zn::CgroupUse use;
    bool frozen = false;
    zn::Resources resources;
    resources.pidsLimit = 1;
    EXPECT_EQ(zn::cgroup_remove(in_, path_.c_str()), 0);
    EXPECT_EQ(zn::cgroup_entries(in_, path_.c_str(), entries), ENOENT);
    EXPECT_EQ(zn::cgroup_processes(in_, path_.c_str(), pids), ENOENT);
    EXPECT_EQ(zn::cgroup_use(in_, path_.c_str(), use), ENOENT);
    EXPECT_EQ(zn::cgroup_freeze(in_, path_.c_str(), true), ENOENT);
    EXPECT_EQ(zn::cgroup_frozen(in_, path_.c_str(), frozen), ENOENT);
    EXPECT_EQ(limit(resources), ENOENT);
}

// What the mount table says, in mount namespaces of a child's own.
class CgroupMounts : public testing::Test {
  protected:
    // The exit code of the child is the version found there.
    static CgroupVersion version_after(const std::function<bool()>& change)
    {
        const int code = in_child([&] {
            if (::unshare(CLONE_NEWNS) != 0 || !change())
                return 100;
            return static_cast<int>(zn::cgroup_version());
        });
        EXPECT_NE(code, 100);
        return static_cast<CgroupVersion>(code);
    }
    static constexpr const char* kTop = "/sys/fs/cgroup";
};

TEST_F(CgroupMounts, NoneIsFoundWhereNothingIsMounted)
{
    EXPECT_EQ(version_after([] { return ::mount("tmpfs", kTop, "tmpfs", 0, nullptr) == 0; }),
              CgroupVersion::kNone);
}

TEST_F(CgroupMounts, NoneIsFoundWhereNothingCanBeCreated)
{
    EXPECT_EQ(version_after([] {
                  zn::Hierarchies in;
                  if (zn::hierarchies_read(in) != 0)
                      return false;
                  return std::all_of(in.all.begin(), in.all.end(), [](const zn::Hierarchy& one) {
                      return ::mount(nullptr, one.point.get(), nullptr,
                                     MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
                  });
              }),
              CgroupVersion::kNone);
}

TEST_F(CgroupMounts, UnifiedHierarchyAtTheTopIsV2)
{
    EXPECT_EQ(version_after([] {
                  return ::mount("tmpfs", kTop, "tmpfs", 0, nullptr) == 0 &&
                         ::mount("cgroup2", kTop, "cgroup2", 0, nullptr) == 0;
              }),
              CgroupVersion::kV2);
}

TEST_F(CgroupMounts, UnifiedHierarchyWithoutControllersBesideItIsNone)
{
    EXPECT_EQ(version_after([] {
                  return ::mount("tmpfs", kTop, "tmpfs", 0, nullptr) == 0 &&
                         ::mkdir("/sys/fs/cgroup/unified", 0755) == 0 &&
                         ::mount("cgroup2", "/sys/fs/cgroup/unified", "cgroup2", 0, nullptr) == 0;
              }),
              CgroupVersion::kNone);
}

TEST_F(CgroupMounts, HierarchiesThatAreMountedOrUnmountedLaterAreNoticed)
{
    EXPECT_EQ(in_child([] {
                  const CgroupVersion before = zn::cgroup_version();
                  if (::unshare(CLONE_NEWNS) != 0 ||
                      ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                      ::mount("tmpfs", kTop, "tmpfs", 0, nullptr) != 0)
                      return 100;
                  if (zn::cgroup_version() != CgroupVersion::kNone)
                      return 1;
                  if (::mkdir("/sys/fs/cgroup/pids", 0755) != 0 ||
                      ::mount("cgroup2", kTop, "cgroup2", 0, nullptr) != 0)
                      return 101;
                  if (zn::cgroup_version() != CgroupVersion::kV2)
                      return 2;
                  if (::umount2(kTop, MNT_DETACH) != 0 || ::umount2(kTop, MNT_DETACH) != 0)
                      return 102;
                  return zn::cgroup_version() == before ? 0 : 3;
              }),
              0);
}

TEST_F(CgroupMounts, HierarchiesStayTheSameWhileTheyAreUsed)
{
    EXPECT_EQ(in_child([] {
                  if (::unshare(CLONE_NEWNS) != 0)
                      return 100;
                  {
                      const zn::KnownHierarchies known;
                      const CgroupVersion before = known.get().version;
                      if (::mount("tmpfs", kTop, "tmpfs", 0, nullptr) != 0)
                          return 101;
                      if (zn::cgroup_version() != before)
                          return 1;
                  }
                  return zn::cgroup_version() == CgroupVersion::kNone ? 0 : 2;
              }),
              0);
}

TEST_F(CgroupMounts, WithoutHierarchiesGroupsAreNotSupported)
{
    EXPECT_EQ(in_child([] {
                  const char* field = "";
                  if (::unshare(CLONE_NEWNS) != 0 ||
                      ::mount("tmpfs", kTop, "tmpfs", 0, nullptr) != 0)
                      return 100;
                  const bool refused =
                      zn::cgroup_create("/zarnel/web", {}, &field) == ENOTSUP && field == nullptr;
                  return refused && zn::cgroup_remove("/zarnel/web") == 0 ? 0 : 1;
              }),
              0);
}

} // namespace
