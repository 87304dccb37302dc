// Tests of which files of v2 are read and written and in which units, on a directory with files of
// their names, and of reading control files.
#include "cgroup/cgroup_limits.hpp"
#include "cgroup_world.hpp"

using namespace cgroup_world;

namespace {

using zn::Resources;

TEST(CgroupWeights, FollowTheUsualConversions)
{
    EXPECT_EQ(zn::weight_of_shares(0), 1U);
    EXPECT_EQ(zn::weight_of_shares(2), 1U);
    EXPECT_EQ(zn::weight_of_shares(1024), 39U);
    EXPECT_EQ(zn::weight_of_shares(262144), 10000U);
    EXPECT_EQ(zn::weight_of_shares(UINT64_MAX), 10000U);
    EXPECT_EQ(zn::weight_of_io(10), 1U);
    EXPECT_EQ(zn::weight_of_io(500), 4950U);
    EXPECT_EQ(zn::weight_of_io(1000), 10000U);
}

// A directory with files of v2's names: shows which files are chosen and what is written to them,
// not what a kernel makes of it.
class CgroupFiles : public testing::Test {
  protected:
    void SetUp() override
    {
        fs::create_directories(kRoot + "/web");
        ASSERT_EQ(zn::hierarchies_add(in_, kRoot.c_str(), true, 0), 0);
    }
    void TearDown() override { fs::remove_all(kRoot); }

    static void put(const std::string& name, const std::string& text = "")
    {
        std::ofstream(kRoot + "/web/" + name) << text;
    }
    static std::string get(const std::string& name) { return read_file(kRoot + "/web/" + name); }
    int limit(const Resources& resources)
    {
        return zn::cgroup_limit(in_, "/web", resources, &field_);
    }

    inline static const std::string kRoot = "/tmp/files";
    zn::Hierarchies in_;
    const char* field_ = nullptr;
};

TEST_F(CgroupFiles, LimitsGoToTheFilesOfV2)
{
    for (const char* name :
         {"memory.max", "memory.swap.max", "memory.low", "cpu.weight", "cpuset.cpus", "cpuset.mems",
          "pids.max", "io.weight", "io.max", "hugetlb.1GB.max", "hugetlb.1GB.rsvd.max"})
        put(name);
    put("cpu.max", "70000 100000");
    Resources resources;
    resources.memoryLimit = 100;
    resources.memorySwap = 150;
    resources.memoryReservation = 50;
    resources.cpuShares = 1024;
    resources.cpuPeriod = 300000;
    resources.cpus = znc::copy_text("0-3");
    resources.mems = znc::copy_text("1");
    resources.pidsLimit = 7;
    resources.ioWeight = 1000;
    ASSERT_NE(resources.writeIops.append({8, 16, 0}), nullptr);
    zn::HugepageLimit one;
    one.size = znc::copy_text("1GB");
    one.limit = 9;
    ASSERT_NE(resources.hugepages.append(std::move(one)), nullptr);
    ASSERT_EQ(limit(resources), 0) << field_;
    const std::pair<const char*, const char*> wanted[] = {
        {"memory.max", "100"},        {"memory.swap.max", "50"},   {"memory.low", "50"},
        {"cpu.weight", "39"},         {"cpu.max", "70000 300000"}, {"cpuset.cpus", "0-3"},
        {"cpuset.mems", "1"},         {"pids.max", "7"},           {"io.weight", "10000"},
        {"io.max", "8:16 wiops=max"}, {"hugetlb.1GB.max", "9"},    {"hugetlb.1GB.rsvd.max", "9"},
    };
    for (const auto& [name, text] : wanted)
        EXPECT_EQ(get(name), text) << name;
}

TEST_F(CgroupFiles, SwapLimitIsMemorySwapMinusMemory)
{
    put("memory.max", "100");
    put("memory.swap.max");
    Resources resources;
    resources.memorySwap = 300; // with the limit that the group has
    EXPECT_EQ(limit(resources), 0);
    EXPECT_EQ(get("memory.swap.max"), "200");
    resources.memorySwap = 99;
    EXPECT_EQ(limit(resources), EINVAL);
    put("memory.max", "max");
    resources.memorySwap = 300;
    EXPECT_EQ(limit(resources), EINVAL);
    resources.memorySwap = -1;
    EXPECT_EQ(limit(resources), 0);
    EXPECT_EQ(get("memory.swap.max"), "max");
}

TEST_F(CgroupFiles, FiguresComeFromTheFilesOfV2)
{
    put("cpu.stat", "usage_usec 30\nuser_usec 20\nsystem_usec 10\n");
    put("memory.current", "1000\n");
    put("memory.stat", "anon 900\ninactive_file 300\n");
    put("memory.max", "max\n");
    put("memory.events", "low 0\noom 4\noom_kill 2\n");
    put("pids.current", "5\n");
    put("pids.max", "9\n");
    put("io.stat", "8:0 rbytes=1 wbytes=2 rios=3\n8:16 rbytes=10 wbytes=20 rios=3\n");
    zn::CgroupUse use;
    ASSERT_EQ(zn::cgroup_use(in_, "/web", use), 0);
    EXPECT_EQ(use.cpuNs, 30000U);
    EXPECT_EQ(use.userNs, 20000U);
    EXPECT_EQ(use.systemNs, 10000U);
    EXPECT_EQ(use.memory, 700U);
    EXPECT_EQ(use.memoryLimit, UINT64_MAX);
    EXPECT_EQ(use.oomKills, 2U);
    EXPECT_EQ(use.pids, 5U);
    EXPECT_EQ(use.pidsLimit, 9U);
    EXPECT_EQ(use.readBytes, 11U);
    EXPECT_EQ(use.writtenBytes, 22U);
}

TEST_F(CgroupFiles, LinksAreNotFollowed)
{
    put("elsewhere", "old");
    fs::create_symlink("elsewhere", kRoot + "/web/pids.max");
    fs::create_directory_symlink("web", kRoot + "/link");
    Resources resources;
    resources.pidsLimit = 1;
    EXPECT_EQ(limit(resources), ELOOP);
    EXPECT_EQ(get("elsewhere"), "old");
    EXPECT_EQ(zn::cgroup_limit(in_, "/link", resources, &field_), ENOTDIR);
    EXPECT_EQ(zn::cgroup_create(in_, "/link/web", {}, &field_), ELOOP);
    EXPECT_EQ(zn::cgroup_remove(in_, "/link"), ENOTDIR);
    EXPECT_TRUE(fs::exists(kRoot + "/web/elsewhere"));
}

TEST_F(CgroupFiles, LinesAreReadWholeAndTooLongOnesRefused)
{
    put("many", std::string(3000, 'a') + "\n" + std::string(3000, 'b') + "\nlast");
    const znc::UniqueFd group = zn::group_open(in_.all[0].root.get(), "web");
    zn::ControlLines lines(group.get(), "many");
    EXPECT_STREQ(lines.next(), std::string(3000, 'a').c_str());
    EXPECT_STREQ(lines.next(), std::string(3000, 'b').c_str());
    EXPECT_STREQ(lines.next(), "last");
    EXPECT_EQ(lines.next(), nullptr);
    EXPECT_EQ(lines.error(), 0);
    put("long", std::string(5000, 'a'));
    zn::ControlLines tooLong(group.get(), "long");
    EXPECT_EQ(tooLong.next(), nullptr);
    EXPECT_EQ(tooLong.error(), E2BIG);
}

} // namespace
