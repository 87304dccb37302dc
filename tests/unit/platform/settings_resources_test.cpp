// "linux.resources", and resources alone.
#include "settings_reading.hpp"

namespace {

using namespace settings_reading;

TEST(SettingsMemory, LimitsAreRead)
{
    const zn::Resources limits = resources(
        R"("memory":{"limit":1048576,"reservation":0,"swap":2097152,"swappiness":60,
                     "disableOOMKiller":true})");
    EXPECT_EQ(limits.memoryLimit, 1048576);
    EXPECT_EQ(limits.memoryReservation, 0);
    EXPECT_EQ(limits.memorySwap, 2097152);
    EXPECT_EQ(limits.memorySwappiness, 60U);
    EXPECT_EQ(limits.disableOomKiller, true);
}

TEST(SettingsMemory, MinusOneAndHugeNumbersMeanUnlimited)
{
    const zn::Resources limits = resources(
        R"("memory":{"limit":9223372036854775807,"reservation":-1,"swap":18446744073709551615})");
    EXPECT_EQ(limits.memoryLimit, -1);
    EXPECT_EQ(limits.memoryReservation, -1);
    EXPECT_EQ(limits.memorySwap, -1);
}

TEST(SettingsMemory, LimitsThatTheKernelLacksAreAcceptedIfTheyRestrictNothing)
{
    const zn::Resources limits = resources(
        R"("memory":{"kernel":-1,"kernelTCP":0,"useHierarchy":true,"checkBeforeUpdate":false})");
    EXPECT_FALSE(limits.memoryLimit);
}

TEST(SettingsMemory, MayBeAbsent)
{
    const zn::Resources limits = resources("");
    EXPECT_FALSE(limits.memoryLimit || limits.memoryReservation || limits.memorySwap ||
                 limits.memorySwappiness || limits.disableOomKiller || limits.cpuShares ||
                 limits.cpuQuota || limits.cpuPeriod || limits.pidsLimit || limits.ioWeight);
    EXPECT_EQ(limits.cpus, nullptr);
    EXPECT_TRUE(limits.devices.empty() && limits.hugepages.empty() && limits.readBps.empty());
}

constexpr char kMemoryRange[] = "not -1 (unlimited) or a whole number from 1 to 9007199254740991";
constexpr Refusal kMemories[] = {
    {"ZeroLimit", "linux", R"("resources":{"memory":{"limit":0}})", EINVAL,
     "linux.resources.memory.limit", kMemoryRange},
    {"NegativeLimit", "linux", R"("resources":{"memory":{"limit":-2}})", EINVAL,
     "linux.resources.memory.limit", kMemoryRange},
    {"LimitThatIsNotExact", "linux", R"("resources":{"memory":{"limit":9007199254740993}})", EINVAL,
     "linux.resources.memory.limit", kMemoryRange},
    {"LimitText", "linux", R"("resources":{"memory":{"limit":"1M"}})", EINVAL,
     "linux.resources.memory.limit", kMemoryRange},
    {"Reservation", "linux", R"("resources":{"memory":{"reservation":1.5}})", EINVAL,
     "linux.resources.memory.reservation",
     "not -1 (unlimited) or a whole number from 0 to 9007199254740991"},
    {"SwapBelowLimit", "linux", R"("resources":{"memory":{"limit":4096,"swap":1}})", EINVAL,
     "linux.resources.memory.swap", "lower than \"limit\""},
    {"SwapBelowUnlimited", "linux", R"("resources":{"memory":{"limit":-1,"swap":4096}})", EINVAL,
     "linux.resources.memory.swap", "lower than \"limit\""},
    {"Swappiness", "linux", R"("resources":{"memory":{"swappiness":101}})", EINVAL,
     "linux.resources.memory.swappiness", "not a whole number from 0 to 100"},
    {"DisableOomKiller", "linux", R"("resources":{"memory":{"disableOOMKiller":0}})", EINVAL,
     "linux.resources.memory.disableOOMKiller", "not true or false"},
    {"Kernel", "linux", R"("resources":{"memory":{"kernel":4096}})", ENOTSUP,
     "linux.resources.memory.kernel", "is not supported"},
    {"KernelTcp", "linux", R"("resources":{"memory":{"kernelTCP":4096}})", ENOTSUP,
     "linux.resources.memory.kernelTCP", "is not supported"},
    {"UseHierarchy", "linux", R"("resources":{"memory":{"useHierarchy":1}})", EINVAL,
     "linux.resources.memory.useHierarchy", "not true or false"},
    {"CheckBeforeUpdate", "linux", R"("resources":{"memory":{"checkBeforeUpdate":true}})", ENOTSUP,
     "linux.resources.memory.checkBeforeUpdate", "is not supported"},
    {"Unknown", "linux", R"("resources":{"memory":{"high":1}})", EINVAL,
     "linux.resources.memory.high", "is unknown"},
    {"NotAnObject", "linux", R"("resources":{"memory":5})", EINVAL, "linux.resources.memory",
     "not an object"},
};
REFUSED_SETTINGS(Memory, kMemories);

// ---------------------------------------------------------------- processors and processes

TEST(SettingsCpu, LimitsAreRead)
{
    const zn::Resources limits = resources(
        R"("cpu":{"shares":1024,"quota":50000,"period":100000,"cpus":"0-3,5","mems":"0"})");
    EXPECT_EQ(limits.cpuShares, 1024U);
    EXPECT_EQ(limits.cpuQuota, 50000);
    EXPECT_EQ(limits.cpuPeriod, 100000U);
    EXPECT_EQ(text_of(limits.cpus), "0-3,5");
    EXPECT_EQ(text_of(limits.mems), "0");
    EXPECT_EQ(resources(R"("cpu":{"quota":-1})").cpuQuota, -1);
}

TEST(SettingsCpu, ZeroAndEmptyCountAsAbsent)
{
    const zn::Resources limits = resources(
        R"("cpu":{"shares":0,"quota":0,"period":0,"cpus":"","mems":"","burst":0,"idle":0,
                  "realtimeRuntime":0,"realtimePeriod":0},"blockIO":{"weight":0,"leafWeight":0})");
    EXPECT_FALSE(limits.cpuShares || limits.cpuQuota || limits.cpuPeriod || limits.ioWeight);
    EXPECT_EQ(limits.cpus, nullptr);
    EXPECT_EQ(limits.mems, nullptr);
}

TEST(SettingsPids, LimitIsRead)
{
    EXPECT_EQ(resources(R"("pids":{"limit":100})").pidsLimit, 100);
    EXPECT_EQ(resources(R"("pids":{"limit":-1})").pidsLimit, -1);
    EXPECT_EQ(resources(R"("pids":{"limit":0})").pidsLimit, -1);
    EXPECT_EQ(resources(R"("pids":{"limit":4194304})").pidsLimit, 4194304);
}

constexpr char kNoList[] = "not a list of numbers and ranges, such as \"0-3,5\"";
constexpr char kPidsRange[] = "not -1 (unlimited) or a whole number from 0 to 4194304";
constexpr Refusal kCpus[] = {
    {"SharesTooLow", "linux", R"("resources":{"cpu":{"shares":1}})", EINVAL,
     "linux.resources.cpu.shares", "not a whole number from 2 to 262144"},
    {"SharesTooHigh", "linux", R"("resources":{"cpu":{"shares":262145}})", EINVAL,
     "linux.resources.cpu.shares", "not a whole number from 2 to 262144"},
    {"Quota", "linux", R"("resources":{"cpu":{"quota":999}})", EINVAL, "linux.resources.cpu.quota",
     "not -1 (unlimited) or a whole number from 1000 to 9007199254740991"},
    {"Period", "linux", R"("resources":{"cpu":{"period":1000001}})", EINVAL,
     "linux.resources.cpu.period", "not a whole number from 1000 to 1000000"},
    {"CpusWord", "linux", R"("resources":{"cpu":{"cpus":"all"}})", EINVAL,
     "linux.resources.cpu.cpus", kNoList},
    {"CpusBackwards", "linux", R"("resources":{"cpu":{"cpus":"3-1"}})", EINVAL,
     "linux.resources.cpu.cpus", kNoList},
    {"CpusEndingWithComma", "linux", R"("resources":{"cpu":{"cpus":"1,"}})", EINVAL,
     "linux.resources.cpu.cpus", kNoList},
    {"CpusOpenRange", "linux", R"("resources":{"cpu":{"cpus":"1-"}})", EINVAL,
     "linux.resources.cpu.cpus", kNoList},
    {"CpusTooManyDigits", "linux", R"("resources":{"cpu":{"cpus":"123456"}})", EINVAL,
     "linux.resources.cpu.cpus", kNoList},
    {"CpusSpace", "linux", R"("resources":{"cpu":{"cpus":"1 2"}})", EINVAL,
     "linux.resources.cpu.cpus", kNoList},
    {"Mems", "linux", R"("resources":{"cpu":{"mems":"x"}})", EINVAL, "linux.resources.cpu.mems",
     kNoList},
    {"Burst", "linux", R"("resources":{"cpu":{"burst":1000}})", ENOTSUP,
     "linux.resources.cpu.burst", "is not supported"},
    {"Idle", "linux", R"("resources":{"cpu":{"idle":1}})", ENOTSUP, "linux.resources.cpu.idle",
     "is not supported"},
    {"RealtimeRuntime", "linux", R"("resources":{"cpu":{"realtimeRuntime":1}})", ENOTSUP,
     "linux.resources.cpu.realtimeRuntime", "is not supported"},
    {"RealtimePeriod", "linux", R"("resources":{"cpu":{"realtimePeriod":1}})", ENOTSUP,
     "linux.resources.cpu.realtimePeriod", "is not supported"},
    {"NoPidsLimit", "linux", R"("resources":{"pids":{}})", EINVAL, "linux.resources.pids.limit",
     "is missing"},
    {"NegativePids", "linux", R"("resources":{"pids":{"limit":-2}})", EINVAL,
     "linux.resources.pids.limit", kPidsRange},
    {"TooManyPids", "linux", R"("resources":{"pids":{"limit":4194305}})", EINVAL,
     "linux.resources.pids.limit", kPidsRange},
};
REFUSED_SETTINGS(Processors, kCpus);

// ---------------------------------------------------------------- block devices and huge pages

TEST(SettingsBlockIo, WeightAndRatesAreRead)
{
    const zn::Resources limits = resources(
        R"("blockIO":{"weight":10,"weightDevice":[{"major":7,"minor":3,"weight":400}],
            "throttleReadBpsDevice":[{"major":8,"minor":0,"rate":1},{"major":8,"minor":16,"rate":2}],
            "throttleWriteBpsDevice":[{"major":8,"minor":0,"rate":3}],
            "throttleReadIOPSDevice":[{"major":8,"minor":0,"rate":4}],
            "throttleWriteIOPSDevice":[{"major":8,"minor":0,"rate":5}]})");
    EXPECT_EQ(limits.ioWeight, 10U);
    ASSERT_EQ(limits.readBps.size(), 2U);
    EXPECT_EQ(limits.readBps[1].major, 8U);
    EXPECT_EQ(limits.readBps[1].minor, 16U);
    EXPECT_EQ(limits.readBps[1].rate, 2U);
    ASSERT_EQ(limits.writeBps.size(), 1U);
    EXPECT_EQ(limits.writeBps[0].rate, 3U);
    ASSERT_EQ(limits.readIops.size(), 1U);
    EXPECT_EQ(limits.readIops[0].rate, 4U);
    ASSERT_EQ(limits.writeIops.size(), 1U);
    EXPECT_EQ(limits.writeIops[0].rate, 5U);
}

TEST(SettingsHugepages, LimitsAreReadForEachSize)
{
    const zn::Resources limits = resources(
        R"("hugepageLimits":[{"pageSize":"2MB","limit":0},
                             {"pageSize":"1GB","limit":18446744073709551615}])");
    ASSERT_EQ(limits.hugepages.size(), 2U);
    EXPECT_EQ(text_of(limits.hugepages[0].size), "2MB");
    EXPECT_EQ(limits.hugepages[0].limit, 0U);
    EXPECT_EQ(limits.hugepages[1].limit, UINT64_MAX);
}

constexpr char kNoSize[] = "not a size such as \"2MB\"";
constexpr Refusal kBlocks[] = {
    {"WeightTooLow", "linux", R"("resources":{"blockIO":{"weight":9}})", EINVAL,
     "linux.resources.blockIO.weight", "not a whole number from 10 to 1000"},
    {"WeightTooHigh", "linux", R"("resources":{"blockIO":{"weight":1001}})", EINVAL,
     "linux.resources.blockIO.weight", "not a whole number from 10 to 1000"},
    {"LeafWeight", "linux", R"("resources":{"blockIO":{"leafWeight":10}})", ENOTSUP,
     "linux.resources.blockIO.leafWeight", "is not supported"},
    {"WeightDevice", "linux",
     R"("resources":{"blockIO":{"weightDevice":[{"major":8,"minor":0,"weight":9}]}})", EINVAL,
     "linux.resources.blockIO.weightDevice[0].weight", "not a whole number from 10 to 1000"},
    {"WeightDeviceWithoutWeight", "linux",
     R"("resources":{"blockIO":{"weightDevice":[{"major":8,"minor":0}]}})", EINVAL,
     "linux.resources.blockIO.weightDevice[0].weight", "is missing"},
    {"WeightDeviceLeaf", "linux",
     R"("resources":{"blockIO":{"weightDevice":[{"major":8,"minor":0,"weight":10,"leafWeight":5}]}})",
     ENOTSUP, "linux.resources.blockIO.weightDevice[0].leafWeight", "is not supported"},
    {"NoRate", "linux",
     R"("resources":{"blockIO":{"throttleReadBpsDevice":[{"major":8,"minor":0}]}})", EINVAL,
     "linux.resources.blockIO.throttleReadBpsDevice[0].rate", "is missing"},
    {"ZeroRate", "linux",
     R"("resources":{"blockIO":{"throttleWriteIOPSDevice":[{"major":8,"minor":0,"rate":0}]}})",
     EINVAL, "linux.resources.blockIO.throttleWriteIOPSDevice[0].rate",
     "not a whole number from 1 to 9007199254740991"},
    {"RateOfNoDevice", "linux",
     R"("resources":{"blockIO":{"throttleWriteBpsDevice":[{"major":-1,"minor":0,"rate":1}]}})",
     EINVAL, "linux.resources.blockIO.throttleWriteBpsDevice[0].major",
     "not a whole number from 0 to 4095"},
    {"PageSize", "linux", R"("resources":{"hugepageLimits":[{"pageSize":"2mb","limit":1}]})",
     EINVAL, "linux.resources.hugepageLimits[0].pageSize", kNoSize},
    {"PageSizePath", "linux",
     R"("resources":{"hugepageLimits":[{"pageSize":"2/../MB","limit":1}]})", EINVAL,
     "linux.resources.hugepageLimits[0].pageSize", kNoSize},
    {"PageSizeZero", "linux", R"("resources":{"hugepageLimits":[{"pageSize":"0MB","limit":1}]})",
     EINVAL, "linux.resources.hugepageLimits[0].pageSize", kNoSize},
    {"PageSizeTwice", "linux",
     R"("resources":{"hugepageLimits":[{"pageSize":"2MB","limit":1},{"pageSize":"2MB","limit":2}]})",
     EINVAL, "linux.resources.hugepageLimits[1].pageSize", "second limit for pages of \"2MB\""},
    {"HugepageLimit", "linux", R"("resources":{"hugepageLimits":[{"pageSize":"2MB","limit":-1}]})",
     EINVAL, "linux.resources.hugepageLimits[0].limit",
     "not a whole number from 0 to 9007199254740991"},
};
REFUSED_SETTINGS(BlockIo, kBlocks);

// ---------------------------------------------------------------- device rules and the rest

TEST(SettingsDeviceRules, AreReadInTheirOrder)
{
    const zn::Resources limits = resources(
        R"("devices":[{"allow":false,"access":"rwm"},
            {"allow":true,"type":"c","major":1,"minor":3,"access":"rw"},
            {"allow":true,"type":"b","major":8,"minor":-1,"access":"m"},
            {"allow":false,"type":"","access":""}])");
    ASSERT_EQ(limits.devices.size(), 4U);
    const zn::DeviceRule& none = limits.devices[0];
    EXPECT_FALSE(none.allow);
    EXPECT_EQ(none.type, 'a');
    EXPECT_EQ(none.major, zn::kAnyDevice);
    EXPECT_TRUE(none.read && none.write && none.make);
    const zn::DeviceRule& null = limits.devices[1];
    EXPECT_TRUE(null.allow && null.read && null.write);
    EXPECT_FALSE(null.make);
    EXPECT_EQ(null.type, 'c');
    EXPECT_EQ(null.major, 1);
    EXPECT_EQ(null.minor, 3);
    const zn::DeviceRule& disks = limits.devices[2];
    EXPECT_EQ(disks.minor, zn::kAnyDevice);
    EXPECT_TRUE(disks.make);
    EXPECT_FALSE(disks.read || disks.write);
    EXPECT_TRUE(limits.devices[3].read && limits.devices[3].write && limits.devices[3].make);
}

TEST(SettingsResources, EmptyValuesAskForNothing)
{
    resources(R"("network":{},"rdma":{},"unified":{})");
}

TEST(SettingsResources, ControlFilesAreReadByName)
{
    const zn::Resources limits =
        resources(R"("unified":{"memory.high":"1048576","io.max":"8:0 rbps=1"})");
    ASSERT_EQ(limits.unified.size(), 2U);
    EXPECT_STREQ(limits.unified[0].name.get(), "memory.high");
    EXPECT_STREQ(limits.unified[0].value.get(), "1048576");
    EXPECT_STREQ(limits.unified[1].value.get(), "8:0 rbps=1");
}

constexpr Refusal kRules[] = {
    {"NoAllow", "linux", R"("resources":{"devices":[{"access":"rwm"}]})", EINVAL,
     "linux.resources.devices[0].allow", "is missing"},
    {"UnknownType", "linux", R"("resources":{"devices":[{"allow":true,"type":"p"}]})", EINVAL,
     "linux.resources.devices[0].type", "unknown type \"p\""},
    {"UnknownAccess", "linux",
     R"("resources":{"devices":[{"allow":true,"type":"c","access":"rx"}]})", EINVAL,
     "linux.resources.devices[0].access", "not a combination of \"r\", \"w\" and \"m\""},
    {"Major", "linux", R"("resources":{"devices":[{"allow":true,"type":"c","major":-2}]})", EINVAL,
     "linux.resources.devices[0].major", "not a whole number from -1 to 4095"},
    {"MajorForAllTypes", "linux", R"("resources":{"devices":[{"allow":true,"major":1}]})", EINVAL,
     "linux.resources.devices[0].type", "is missing or \"a\", with a device number"},
    {"MinorForAllTypes", "linux", R"("resources":{"devices":[{"allow":true,"minor":3}]})", EINVAL,
     "linux.resources.devices[0].type", "is missing or \"a\", with a device number"},
    {"SomeAccessForAllTypes", "linux",
     R"("resources":{"devices":[{"allow":true,"type":"a","access":"r"}]})", EINVAL,
     "linux.resources.devices[0].access", "not \"rwm\", although the rule is about all types"},
    {"Network", "linux", R"("resources":{"network":{"classID":1}})", ENOTSUP,
     "linux.resources.network", "is not supported"},
    {"Rdma", "linux", R"("resources":{"rdma":{"mlx":{"hcaHandles":1}}})", ENOTSUP,
     "linux.resources.rdma", "is not supported"},
    {"UnifiedElsewhere", "linux", R"("resources":{"unified":{"../pids.max":"1"}})", EINVAL,
     "linux.resources.unified.../pids.max", "not the name of a control file"},
    {"UnifiedParent", "linux", R"("resources":{"unified":{"..":"1"}})", EINVAL,
     "linux.resources.unified...", "not the name of a control file"},
    {"UnifiedNumber", "linux", R"("resources":{"unified":{"pids.max":1}})", EINVAL,
     "linux.resources.unified.pids.max", "not a string"},
    {"Unknown", "linux", R"("resources":{"gpu":{}})", EINVAL, "linux.resources.gpu", "is unknown"},
};
REFUSED_SETTINGS(Resources, kRules);

// ---------------------------------------------------------------- alone

TEST(SettingsResourcesAlone, AreRead)
{
    zn::Resources limits;
    zn::SettingsFault fault;
    EXPECT_EQ(zn::settings_read_resources(R"({"pids":{"limit":9}})", limits, fault), 0);
    EXPECT_EQ(limits.pidsLimit, 9);
}

TEST(SettingsResourcesAlone, FaultsNameTheField)
{
    zn::Resources limits;
    limits.pidsLimit = 7;
    zn::SettingsFault fault;
    EXPECT_EQ(zn::settings_read_resources(R"({"pids":{"limit":-2}})", limits, fault), EINVAL);
    EXPECT_STREQ(fault.field, "resources.pids.limit");
    EXPECT_EQ(limits.pidsLimit, 7);
    EXPECT_EQ(zn::settings_read_resources("[]", limits, fault), EINVAL);
    EXPECT_STREQ(fault.field, "resources");
    EXPECT_EQ(zn::settings_read_resources("x", limits, fault), EINVAL);
    EXPECT_STREQ(fault.field, "resources");
    EXPECT_STREQ(fault.reason, "not JSON");
    EXPECT_EQ(zn::settings_read_resources(R"({"rdma":{"a":1}})", limits, fault), ENOTSUP);
    EXPECT_STREQ(fault.field, "resources.rdma");
}

} // namespace
