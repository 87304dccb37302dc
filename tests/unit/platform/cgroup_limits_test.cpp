// Tests of the limits of control groups and of what groups use, on the hierarchies that this
// machine has.
#include "cgroup/cgroup_limits.hpp"
#include "cgroup_world.hpp"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <sched.h>

using namespace cgroup_world;

namespace {

using zn::Controller;
using zn::Resources;

constexpr std::int64_t kMiB = 1024 * 1024;

class CgroupLimits : public Cgroups {
  protected:
    void SetUp() override
    {
        Cgroups::SetUp();
        if (!IsSkipped()) {
            ASSERT_EQ(create(), 0) << field();
        }
    }
    // Writes a limit and reads its file back.
    std::string written(const Resources& resources, const std::string& v1, const std::string& v2)
    {
        EXPECT_EQ(limit(resources), 0) << field() << " " << v1;
        return value(v1, v2);
    }
};

TEST_F(CgroupLimits, MemoryLimitsAreWritten)
{
    if (!has("memory.limit_in_bytes", "memory.max"))
        GTEST_SKIP() << "no memory controller";
    Resources resources;
    resources.memoryLimit = 64 * kMiB;
    resources.memoryReservation = 32 * kMiB;
    EXPECT_EQ(written(resources, "memory.limit_in_bytes", "memory.max"), "67108864");
    EXPECT_EQ(value("memory.soft_limit_in_bytes", "memory.low"), "33554432");
    resources = Resources();
    resources.memoryLimit = -1;
    EXPECT_EQ(written(resources, "memory.limit_in_bytes", "memory.max"),
              unified(Controller::kMemory) ? "max" : "9223372036854771712");
}

TEST_F(CgroupLimits, MemoryAndSwapAreRaisedAndLowered)
{
    if (!has("memory.memsw.limit_in_bytes", "memory.swap.max"))
        GTEST_SKIP() << "swap is not counted";
    const bool v2 = unified(Controller::kMemory);
    for (const std::int64_t memory : {64, 256, 32, 128}) {
        Resources resources;
        resources.memoryLimit = memory * kMiB;
        resources.memorySwap = (memory + 8) * kMiB;
        EXPECT_EQ(written(resources, "memory.limit_in_bytes", "memory.max"),
                  std::to_string(memory * kMiB));
        EXPECT_EQ(value("memory.memsw.limit_in_bytes", "memory.swap.max"),
                  std::to_string((v2 ? 8 : memory + 8) * kMiB));
    }
    Resources resources;
    resources.memoryLimit = 256 * kMiB;
    resources.memorySwap = -1;
    EXPECT_EQ(written(resources, "memory.memsw.limit_in_bytes", "memory.swap.max"),
              v2 ? "max" : "9223372036854771712");
    resources.memorySwap = 512 * kMiB;
    EXPECT_EQ(limit(resources), 0) << field();
    resources = Resources();
    resources.memoryLimit = -1;
    EXPECT_EQ(limit(resources), 0) << field(); // above the limit of both until that is lifted, too
}

TEST_F(CgroupLimits, SwapBelowMemoryIsRefused)
{
    if (!has("memory.memsw.limit_in_bytes", "memory.swap.max"))
        GTEST_SKIP() << "swap is not counted";
    Resources resources;
    resources.memoryLimit = 64 * kMiB;
    resources.memorySwap = 32 * kMiB;
    EXPECT_EQ(limit(resources), EINVAL);
    EXPECT_EQ(field(), "memory.swap");
}

TEST_F(CgroupLimits, SwappinessAndTheKillerAreWrittenOrRefusedByName)
{
    if (!has("memory.limit_in_bytes", "memory.max"))
        GTEST_SKIP() << "no memory controller";
    Resources resources;
    resources.disableOomKiller = false;
    EXPECT_EQ(limit(resources), 0) << field();
    resources.disableOomKiller = true;
    Resources swappiness;
    swappiness.memorySwappiness = 10;
    if (unified(Controller::kMemory)) {
        EXPECT_EQ(limit(resources), ENOTSUP);
        EXPECT_EQ(field(), "memory.disableOOMKiller");
        EXPECT_EQ(limit(swappiness), ENOTSUP);
        EXPECT_EQ(field(), "memory.swappiness");
        return;
    }
    EXPECT_EQ(written(swappiness, "memory.swappiness", ""), "10");
    EXPECT_NE(written(resources, "memory.oom_control", "").find("oom_kill_disable 1"),
              std::string::npos);
    resources.disableOomKiller = false;
    EXPECT_NE(written(resources, "memory.oom_control", "").find("oom_kill_disable 0"),
              std::string::npos);
}

TEST_F(CgroupLimits, ProcessorTimeIsWritten)
{
    if (!has("cpu.cfs_quota_us", "cpu.max"))
        GTEST_SKIP() << "no cpu controller";
    const bool v2 = unified(Controller::kCpu);
    Resources resources;
    resources.cpuShares = 512;
    resources.cpuQuota = 50000;
    resources.cpuPeriod = 200000;
    EXPECT_EQ(written(resources, "cpu.cfs_quota_us", "cpu.max"), v2 ? "50000 200000" : "50000");
    EXPECT_EQ(value("cpu.shares", "cpu.weight"), v2 ? "20" : "512");
    resources = Resources();
    resources.cpuPeriod = 100000;
    EXPECT_EQ(written(resources, "cpu.cfs_period_us", "cpu.max"), v2 ? "50000 100000" : "100000");
    resources = Resources();
    resources.cpuQuota = -1;
    EXPECT_EQ(written(resources, "cpu.cfs_quota_us", "cpu.max"), v2 ? "max 100000" : "-1");
    resources.cpuQuota = 1;
    EXPECT_EQ(limit(resources), EINVAL);
    EXPECT_EQ(field(), "cpu.quota");
}

// The quota of a group may not be a larger part of its period than that of its parent.
TEST_F(CgroupLimits, QuotaAndPeriodAreChangedTogetherWithinTheParentsLimit)
{
    if (unified(Controller::kCpu) || !has("cpu.cfs_quota_us", ""))
        GTEST_SKIP() << "only v1 has two files for them";
    Resources resources;
    resources.cpuPeriod = 100000;
    resources.cpuQuota = 50000;
    ASSERT_EQ(zn::cgroup_limit(in_, top_.c_str(), resources, &field_), 0);
    ASSERT_EQ(limit(resources), 0) << field();
    resources.cpuPeriod = 50000;
    resources.cpuQuota = 20000;
    EXPECT_EQ(limit(resources), 0) << field();
    EXPECT_EQ(value("cpu.cfs_period_us", ""), "50000");
    EXPECT_EQ(value("cpu.cfs_quota_us", ""), "20000");
    resources.cpuPeriod = 100000;
    resources.cpuQuota = 50000;
    EXPECT_EQ(limit(resources), 0) << field();
}

TEST_F(CgroupLimits, ProcessorsAndMemoryNodesAreWritten)
{
    if (!has("cpuset.cpus", ""))
        GTEST_SKIP() << "no cpuset controller";
    Resources resources;
    resources.cpus = znc::copy_text("0");
    resources.mems = znc::copy_text("0");
    EXPECT_EQ(written(resources, "cpuset.cpus", ""), "0");
    EXPECT_EQ(value("cpuset.mems", ""), "0");
    Child child(in_, path_, [] {
        cpu_set_t set;
        return ::sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 100;
    });
    EXPECT_EQ(child.code(), 1);
    resources.cpus = znc::copy_text("100000");
    EXPECT_NE(limit(resources), 0);
    EXPECT_EQ(field(), "cpu.cpus");
}

// "8:0" of a disk of this machine; empty if it has none.
std::string a_disk()
{
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/sys/block", error))
        if (read_file(entry.path() / "size") != "0")
            return read_file(entry.path() / "dev");
    return "";
}

TEST_F(CgroupLimits, RatesOfADiskAreWrittenAndLifted)
{
    const std::string disk = a_disk();
    if (disk.empty() || !has("blkio.throttle.read_bps_device", "io.max"))
        GTEST_SKIP() << "no disk, or no controller for disks";
    zn::DeviceRate rate;
    rate.major = static_cast<std::uint32_t>(std::stoul(disk));
    rate.minor = static_cast<std::uint32_t>(std::stoul(disk.substr(disk.find(':') + 1)));
    const auto all = [&](std::uint64_t number) {
        Resources resources;
        rate.rate = number;
        for (zn::List<zn::DeviceRate>* list :
             {&resources.readBps, &resources.writeBps, &resources.readIops, &resources.writeIops})
            EXPECT_NE(list->append(rate), nullptr);
        return resources;
    };
    EXPECT_EQ(limit(all(1048576)), 0) << field();
    if (unified(Controller::kBlkio)) {
        EXPECT_EQ(value("", "io.max"),
                  disk + " rbps=1048576 wbps=1048576 riops=1048576 wiops=1048576");
    } else {
        for (const char* file : {"read_bps", "write_bps", "read_iops", "write_iops"})
            EXPECT_EQ(value(std::string("blkio.throttle.") + file + "_device", ""),
                      disk + " 1048576");
    }
    EXPECT_EQ(written(all(0), "blkio.throttle.read_bps_device", "io.max"), "");
}

TEST_F(CgroupLimits, WeightOfDisksIsWritten)
{
    Resources resources;
    resources.ioWeight = 500;
    if (!has("blkio.weight", "io.weight") && !has("blkio.bfq.weight", "io.bfq.weight")) {
        EXPECT_EQ(limit(resources), ENOTSUP);
        EXPECT_EQ(field(), "blockIO.weight");
        return;
    }
    ASSERT_EQ(limit(resources), 0) << field();
    if (has("blkio.bfq.weight", "io.bfq.weight")) {
        EXPECT_EQ(value("blkio.bfq.weight", "io.bfq.weight"),
                  unified(Controller::kBlkio) ? "default 500" : "500");
    }
    if (has("", "io.weight")) {
        EXPECT_EQ(value("", "io.weight"), "default 4950");
    }
}

TEST_F(CgroupLimits, AWeightForADiskThatDoesNotExistIsReported)
{
    Resources resources;
    ASSERT_NE(resources.deviceWeights.append({4095, 77, 500}), nullptr);
    EXPECT_NE(limit(resources), 0);
    EXPECT_EQ(field(), "blockIO.weightDevice");
}

TEST_F(CgroupLimits, HugePagesAreWritten)
{
    if (!has("hugetlb.2MB.limit_in_bytes", "hugetlb.2MB.max"))
        GTEST_SKIP() << "no hugetlb controller, or no pages of 2 MB";
    Resources resources;
    zn::HugepageLimit one;
    one.size = znc::copy_text("2MB");
    one.limit = 4 * kMiB;
    ASSERT_NE(resources.hugepages.append(std::move(one)), nullptr);
    EXPECT_EQ(written(resources, "hugetlb.2MB.limit_in_bytes", "hugetlb.2MB.max"), "4194304");
    EXPECT_EQ(value("hugetlb.2MB.rsvd.limit_in_bytes", "hugetlb.2MB.rsvd.max"), "4194304");
    resources.hugepages[0].size = znc::copy_text("3MB");
    EXPECT_EQ(limit(resources), ENOTSUP);
    EXPECT_EQ(field(), "hugepageLimits");
    for (const char* size : {"", "2", "MB", "2MB/", "../2MB", "2mb", "12345678MB"}) {
        resources.hugepages[0].size = znc::copy_text(size);
        EXPECT_EQ(limit(resources), EINVAL) << size;
    }
}

TEST_F(CgroupLimits, LimitWithoutControllerIsRefusedByItsNameButUnlimitedIsNot)
{
    Resources memory;
    memory.memoryLimit = 64 * kMiB;
    Resources quota;
    quota.cpuQuota = 10000;
    Resources shares;
    shares.cpuShares = 100;
    Resources cpus;
    cpus.cpus = znc::copy_text("0");
    Resources pids;
    pids.pidsLimit = 5;
    Resources weight;
    weight.ioWeight = 100;
    Resources devices;
    ASSERT_NE(devices.devices.append({}), nullptr);
    // A hierarchy of v1 with a controller that none of them needs.
    zn::Hierarchies none;
    ASSERT_EQ(zn::hierarchies_add(none, in_.all[0].point.get(), false,
                                  1U << static_cast<unsigned>(Controller::kFreezer)),
              0);
    const std::pair<const Resources*, const char*> all[] = {
        {&memory, "memory.limit"}, {&quota, "cpu.quota"}, {&shares, "cpu.shares"},
        {&cpus, "cpu.cpus"},       {&pids, "pids.limit"}, {&weight, "blockIO.weight"},
        {&devices, "devices"},
    };
    for (const auto& [resources, name] : all) {
        EXPECT_EQ(zn::cgroup_limit(none, path_.c_str(), *resources, &field_), ENOTSUP) << name;
        EXPECT_EQ(field(), name);
    }
    Resources unlimited;
    unlimited.memoryLimit = unlimited.memorySwap = unlimited.cpuQuota = unlimited.pidsLimit = -1;
    EXPECT_EQ(zn::cgroup_limit(none, path_.c_str(), unlimited, &field_), 0) << field();
}

TEST_F(CgroupLimits, TheDefaultLimitOfProcessesIsLeftOutWithoutItsController)
{
    zn::Hierarchies none;
    ASSERT_EQ(zn::hierarchies_add(none, in_.all[0].point.get(), false,
                                  1U << static_cast<unsigned>(Controller::kFreezer)),
              0);
    Resources pids;
    pids.pidsLimit = 5;
    EXPECT_EQ(zn::cgroup_limit(none, path_.c_str(), pids, &field_), ENOTSUP);
    pids.pidsLimitIsDefault = true;
    EXPECT_EQ(zn::cgroup_limit(none, path_.c_str(), pids, &field_), 0) << field();
}

TEST_F(CgroupLimits, ProcessesBeyondTheLimitAreNotForked)
{
    if (!has("pids.max", ""))
        GTEST_SKIP() << "no pids controller";
    Resources resources;
    resources.pidsLimit = 3;
    EXPECT_EQ(written(resources, "pids.max", ""), "3");
    const Shared<int> error;
    Child child(in_, path_, [&] {
        int forked = 0;
        while (forked < 10) {
            const pid_t pid = ::_Fork(); // as in Child
            if (pid == 0)
                return sleep_for_ever();
            if (pid < 0) {
                *error = errno;
                break;
            }
            forked++;
        }
        return forked;
    });
    EXPECT_EQ(child.code(), 2);
    EXPECT_EQ(*error, EAGAIN);
    zn::CgroupUse use;
    EXPECT_EQ(zn::cgroup_use(in_, path_.c_str(), use), 0);
    EXPECT_EQ(use.pids, 2U);
    EXPECT_EQ(use.pidsLimit, 3U);
    resources.pidsLimit = -1;
    EXPECT_EQ(written(resources, "pids.max", ""), "max");
}

// Takes memory until it is killed.
int devour()
{
    for (int i = 0; i < 512; i++) {
        auto* memory = static_cast<char*>(std::malloc(kMiB));
        for (std::int64_t at = 0; at < kMiB; at += 1024)
            static_cast<volatile char*>(memory)[at] = 1;
    }
    return 0;
}

TEST_F(CgroupLimits, ProcessBeyondTheMemoryLimitIsKilledAndCounted)
{
    if (!has("memory.limit_in_bytes", "memory.max"))
        GTEST_SKIP() << "no memory controller";
    Resources resources;
    resources.memoryLimit = 32 * kMiB;
    if (has("memory.memsw.limit_in_bytes", "memory.swap.max"))
        resources.memorySwap = 32 * kMiB;
    ASSERT_EQ(limit(resources), 0) << field();
    Child child(in_, path_, devour);
    const int status = child.wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    zn::CgroupUse use;
    EXPECT_EQ(zn::cgroup_use(in_, path_.c_str(), use), 0);
    EXPECT_GE(use.oomKills, 1U);
    EXPECT_EQ(use.memoryLimit, std::uint64_t{32} * kMiB);
}

TEST_F(CgroupLimits, WhatAGroupUsesIsReported)
{
    constexpr std::int64_t kTouched = 16 * kMiB;
    constexpr std::uint64_t kBurnt = 100000000;
    const Shared<std::atomic<bool>> ready;
    const Child child(in_, path_, [&] {
        auto* memory = static_cast<char*>(std::malloc(kTouched));
        for (std::int64_t at = 0; at < kTouched; at += 1024)
            static_cast<volatile char*>(memory)[at] = 1;
        timespec used = {};
        while (used.tv_sec == 0 && used.tv_nsec < static_cast<long>(2 * kBurnt))
            ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
        *ready = true;
        return sleep_for_ever();
    });
    ASSERT_TRUE(eventually([&] { return (*ready).load(); }));
    zn::CgroupUse use;
    ASSERT_EQ(zn::cgroup_use(in_, path_.c_str(), use), 0);
    EXPECT_GE(use.cpuNs, kBurnt);
    EXPECT_GT(use.userNs + use.systemNs, 0U);
    EXPECT_EQ(use.oomKills, 0U);
    EXPECT_EQ(use.memoryLimit, UINT64_MAX);
    EXPECT_EQ(use.pidsLimit, UINT64_MAX);
    if (has("memory.usage_in_bytes", "memory.current")) {
        EXPECT_GE(use.memory, static_cast<std::uint64_t>(kTouched));
    }
    if (has("pids.current", "")) {
        EXPECT_EQ(use.pids, 1U);
    }
}

} // namespace
