// Tests of names and properties of systemd's units.
#include "oci/systemd_devices.hpp"
#include "oci/systemd_name.hpp"
#include "oci/systemd_property.hpp"

#include <algorithm>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace {

using zncrun::Failure;
using zncrun::Json;
using zncrun::kUnitInfinity;
using zncrun::read_scope_name;
using zncrun::scope_group;
using zncrun::UnitDevices;
using zncrun::UnitLimits;
using zncrun::UnitProperties;

zncrun::ScopeName name_of(const std::string& path)
{
    return read_scope_name(path, "system.slice", "web");
}

std::string group_of(const std::string& path, const std::string& root = "")
{
    return scope_group(root, name_of(path));
}

UnitProperties limits(const char* resources, int version, const UnitLimits& now = {})
{
    return zncrun::limit_properties(Json::parse(resources), version, now);
}

UnitProperties annotations(const std::string& name, const std::string& value)
{
    return zncrun::annotation_properties(
        Json::object({{"org.systemd.property." + name, value}, {"other", "x"}}));
}

// The value of a property; fails if it is missing, twice there, or of another type.
template <class Value> Value get(const UnitProperties& properties, const std::string& name)
{
    const auto is = [&](const auto& one) { return one.name == name; };
    EXPECT_EQ(std::count_if(properties.begin(), properties.end(), is), 1) << name;
    const auto found = std::find_if(properties.begin(), properties.end(), is);
    const Value* value = found != properties.end() ? std::get_if<Value>(&found->value) : nullptr;
    EXPECT_NE(value, nullptr) << name;
    return value != nullptr ? *value : Value();
}

std::uint64_t number(const UnitProperties& properties, const std::string& name)
{
    return get<std::uint64_t>(properties, name);
}

bool has(const UnitProperties& properties, const std::string& name)
{
    return std::any_of(properties.begin(), properties.end(),
                       [&](const auto& one) { return one.name == name; });
}

// ---------------------------------------------------------------- names

TEST(ScopeName, HasSlicePrefixAndName)
{
    EXPECT_EQ(name_of("machine.slice:libpod:abc").slice, "machine.slice");
    EXPECT_EQ(name_of("machine.slice:libpod:abc").unit, "libpod-abc.scope");
}

TEST(ScopeName, WithoutSliceIsInTheDefaultOne)
{
    EXPECT_EQ(name_of(":docker:abc").slice, "system.slice");
    EXPECT_EQ(name_of("").slice, "system.slice");
    EXPECT_EQ(name_of("").unit, "zncrun-web.scope");
}

TEST(ScopeName, WithoutPrefixHasNoDash)
{
    EXPECT_EQ(name_of("a.slice::abc").unit, "abc.scope");
}

TEST(ScopeName, RefusesWhatCannotBeAUnit)
{
    const std::string tooLong(250, 'x');
    for (const std::string& path : {std::string("/a/b"),
                                    std::string("a"),
                                    std::string("a.slice:b"),
                                    std::string("a.slice:b:c:d"),
                                    std::string("a.slice:b:"),
                                    std::string("::"),
                                    std::string("a.slice:../b:c"),
                                    std::string("a.slice:b:c/d"),
                                    std::string("a:b:c"),
                                    std::string("../a.slice:b:c"),
                                    std::string("/a.slice:b:c"),
                                    std::string(".slice:b:c"),
                                    std::string("-a.slice:b:c"),
                                    std::string("a-.slice:b:c"),
                                    std::string("a--b.slice:b:c"),
                                    std::string("a.slice:b:c@d"),
                                    std::string("a@b.slice:b:c"),
                                    std::string("a.slice:b:c d"),
                                    std::string("a.slice:b:c\n"),
                                    std::string("a.slice:b:\x01"),
                                    std::string("a.slice:b:\x7f"),
                                    std::string("a.slice:b:\xc3\xa4"),
                                    std::string("a.slice:b:c\0d", 13),
                                    std::string("a.slice:b:c.slice"),
                                    "a.slice:b:" + tooLong,
                                    tooLong + ".slice:b:c"})
        EXPECT_THROW(name_of(path), Failure) << path;
    EXPECT_THROW(read_scope_name("", "system.slice", "a+b"), Failure);
}

TEST(ScopeName, TheFailureNamesTheField)
{
    try {
        name_of("/a/b");
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_NE(std::string(failure.what()).find("linux.cgroupsPath"), std::string::npos);
    }
}

TEST(ScopeGroup, NestsSlices)
{
    EXPECT_EQ(group_of("system.slice:a:b"), "/system.slice/a-b.scope");
    EXPECT_EQ(group_of("a-b-c.slice:x:y"), "/a.slice/a-b.slice/a-b-c.slice/x-y.scope");
}

TEST(ScopeGroup, TheRootSliceIsNoDirectory)
{
    EXPECT_EQ(group_of("-.slice:a:b"), "/a-b.scope");
}

TEST(ScopeGroup, IsBelowTheGroupOfTheManager)
{
    EXPECT_EQ(group_of("user.slice:a:b", "/user.slice/user-1.slice/user@1.service"),
              "/user.slice/user-1.slice/user@1.service/user.slice/a-b.scope");
    EXPECT_EQ(group_of("a.slice:a:b", "/"), "/a.slice/a-b.scope");
}

TEST(ScopeGroup, EscapesNamesOfControlFiles)
{
    EXPECT_EQ(group_of("memory.slice::cpu"), "/_memory.slice/_cpu.scope");
    EXPECT_EQ(group_of("a.slice::_x"), "/a.slice/__x.scope");
    EXPECT_EQ(group_of("a.slice::cgroup.x"), "/a.slice/_cgroup.x.scope");
}

// ---------------------------------------------------------------- limits

TEST(LimitProperties, OfMemory)
{
    const char* given = R"({"memory":{"limit":1048576,"swap":3145728,"reservation":4096}})";
    const auto v2 = limits(given, 2);
    EXPECT_EQ(number(v2, "MemoryMax"), 1048576U);
    EXPECT_EQ(number(v2, "MemorySwapMax"), 2097152U);
    EXPECT_EQ(number(v2, "MemoryLow"), 4096U);
    const auto v1 = limits(given, 1);
    EXPECT_EQ(number(v1, "MemoryLimit"), 1048576U);
    EXPECT_EQ(v1.size(), 1U);
}

TEST(LimitProperties, SwapAloneIsRelativeToTheLimitThatTheScopeHas)
{
    const char* given = R"({"memory":{"swap":3145728}})";
    EXPECT_EQ(number(limits(given, 2, {1048576, kUnitInfinity, kUnitInfinity}), "MemorySwapMax"),
              2097152U);
    EXPECT_THROW(limits(given, 2), Failure);
    EXPECT_THROW(limits(R"({"memory":{"limit":2,"swap":1}})", 2), Failure);
}

TEST(LimitProperties, NegativeIsUnlimited)
{
    const auto all = limits(R"({"memory":{"limit":-1,"swap":-1},"pids":{"limit":-1},
                                "cpu":{"quota":-1}})",
                            2);
    for (const char* name : {"MemoryMax", "MemorySwapMax", "TasksMax", "CPUQuotaPerSecUSec"})
        EXPECT_EQ(number(all, name), kUnitInfinity);
}

TEST(LimitProperties, OfProcessorTime)
{
    const auto v2 = limits(R"({"cpu":{"shares":1024,"quota":25000,"period":50000}})", 2);
    EXPECT_EQ(number(v2, "CPUWeight"), 39U);
    EXPECT_EQ(number(v2, "CPUQuotaPerSecUSec"), 500000U);
    EXPECT_EQ(number(v2, "CPUQuotaPeriodUSec"), 50000U);
    EXPECT_EQ(number(limits(R"({"cpu":{"shares":1024}})", 1), "CPUShares"), 1024U);
}

TEST(LimitProperties, QuotaIsRoundedUpToPercents)
{
    EXPECT_EQ(number(limits(R"({"cpu":{"quota":1001}})", 2), "CPUQuotaPerSecUSec"), 20000U);
    EXPECT_EQ(number(limits(R"({"cpu":{"quota":1}})", 2), "CPUQuotaPerSecUSec"), 10000U);
    EXPECT_LT(number(limits(R"({"cpu":{"quota":9223372036854775807}})", 2), "CPUQuotaPerSecUSec"),
              kUnitInfinity);
}

TEST(LimitProperties, QuotaAndPeriodAloneKeepTheOther)
{
    const UnitLimits now = {kUnitInfinity, 50000, 500000};
    EXPECT_EQ(number(limits(R"({"cpu":{"quota":10000}})", 2, now), "CPUQuotaPerSecUSec"), 200000U);
    const auto period = limits(R"({"cpu":{"period":100000}})", 2, now);
    EXPECT_EQ(number(period, "CPUQuotaPerSecUSec"), 250000U);
    EXPECT_FALSE(has(limits(R"({"cpu":{"period":100000}})", 2), "CPUQuotaPerSecUSec"));
}

TEST(LimitProperties, SetsOfProcessorsAreBits)
{
    const auto all = limits(R"({"cpu":{"cpus":"0-2,9","mems":"0"}})", 2);
    EXPECT_EQ(get<std::vector<std::uint8_t>>(all, "AllowedCPUs"),
              (std::vector<std::uint8_t>{7, 2}));
    EXPECT_EQ(get<std::vector<std::uint8_t>>(all, "AllowedMemoryNodes"),
              std::vector<std::uint8_t>{1});
    EXPECT_TRUE(limits(R"({"cpu":{"cpus":"0-2,9"}})", 1).empty());
    for (const char* bad : {"x", "1-", "-1", "3-1", "1,,2", "99999", "0-4294967295"})
        EXPECT_THROW(
            zncrun::limit_properties(Json::object({{"cpu", Json::object({{"cpus", bad}})}}), 2, {}),
            Failure)
            << bad;
}

TEST(LimitProperties, WeightsOfDisks)
{
    EXPECT_EQ(number(limits(R"({"blockIO":{"weight":1000}})", 2), "IOWeight"), 10000U);
    EXPECT_EQ(number(limits(R"({"blockIO":{"weight":500}})", 1), "BlockIOWeight"), 500U);
}

TEST(LimitProperties, ControlFilesTakePrecedence)
{
    const auto all = limits(R"({"memory":{"limit":1},"unified":{"memory.max":"4096",
        "memory.high":"max","cpu.max":"20000 100000","pids.max":"7","io.weight":"default 50",
        "cpuset.cpus":"1","hugetlb.2MB.max":"0"}})",
                            2);
    EXPECT_EQ(number(all, "MemoryMax"), 4096U);
    EXPECT_EQ(number(all, "MemoryHigh"), kUnitInfinity);
    EXPECT_EQ(number(all, "CPUQuotaPerSecUSec"), 200000U);
    EXPECT_EQ(number(all, "TasksMax"), 7U);
    EXPECT_EQ(number(all, "IOWeight"), 50U);
    EXPECT_EQ(get<std::vector<std::uint8_t>>(all, "AllowedCPUs"), std::vector<std::uint8_t>{2});
    for (const char* bad : {R"({"unified":{"memory.max":"1G"}})", R"({"unified":{"cpu.max":""}})",
                            R"({"unified":{"cpu.max":"1 2 3"}})", R"({"unified":{"pids.max":7}})"})
        EXPECT_THROW(limits(bad, 2), Failure) << bad;
}

TEST(LimitProperties, RefuseOtherTypes)
{
    for (const char* bad : {R"({"memory":{"limit":"1"}})", R"({"memory":[]})",
                            R"({"cpu":{"quota":1.5}})", R"({"pids":{"limit":true}})", R"([])"})
        EXPECT_THROW(limits(bad, 2), Failure) << bad;
}

// ---------------------------------------------------------------- annotations

TEST(AnnotationProperties, HaveTypes)
{
    EXPECT_EQ(get<std::string>(annotations("CollectMode", "'inactive-or-failed'"), "CollectMode"),
              "inactive-or-failed");
    EXPECT_EQ(get<std::string>(annotations("Description", R"("it\"s \\ ")"), "Description"),
              "it\"s \\ ");
    EXPECT_TRUE(get<bool>(annotations("SendSIGHUP", " true "), "SendSIGHUP"));
    EXPECT_EQ(get<std::int32_t>(annotations("KillSignal", "-9"), "KillSignal"), -9);
    EXPECT_EQ(get<std::uint32_t>(annotations("Any", "uint32 4294967295"), "Any"), 4294967295U);
    EXPECT_EQ(get<std::int64_t>(annotations("Any", "int64 -5"), "Any"), -5);
    EXPECT_EQ(number(annotations("Any", "uint64 18446744073709551615"), "Any"), kUnitInfinity);
    EXPECT_EQ(
        get<std::vector<std::string>>(annotations("Wants", "['a.service', 'b.service']"), "Wants"),
        (std::vector<std::string>{"a.service", "b.service"}));
    EXPECT_EQ(annotations("Any", "1").size(), 1U);
}

TEST(AnnotationProperties, SecondsBecomeMicroseconds)
{
    EXPECT_EQ(number(annotations("TimeoutStopSec", "7"), "TimeoutStopUSec"), 7000000U);
    EXPECT_EQ(number(annotations("TimeoutStopUSec", "uint64 7"), "TimeoutStopUSec"), 7U);
    for (const char* bad : {"-1", "'7'", "true", "uint64 18446744073709551615"})
        EXPECT_THROW(annotations("TimeoutStopSec", bad), Failure) << bad;
}

TEST(AnnotationProperties, RefuseOtherValues)
{
    for (const char* bad : {"",
                            " ",
                            "word",
                            "'open",
                            "'a' 'b'",
                            "'a'b",
                            "1 2",
                            "1.5",
                            "2147483648",
                            "uint64 -1",
                            "uint32 4294967296",
                            "uint64",
                            "byte 1",
                            "[",
                            "[]",
                            "['a'",
                            "['a',]",
                            "[1]",
                            "[,]",
                            "{}",
                            "(1, 2)",
                            "<1>",
                            "'\\n'",
                            "'a\nb'",
                            "'\\'",
                            "truefalse"})
        EXPECT_THROW(annotations("Any", bad), Failure) << bad;
}

TEST(AnnotationProperties, RefuseOtherNames)
{
    for (const char* bad :
         {"", "A", "a b", "A=", "A.B", "../A", "PIDs", "Slice", "Delegate", "DefaultDependencies"})
        EXPECT_THROW(annotations(bad, "1"), Failure) << bad;
}

// ---------------------------------------------------------------- devices

constexpr ZN_ENGINE_DEVICE_RULE kDenyAll = {FALSE, 'a', -1, -1, TRUE, TRUE, TRUE};
constexpr ZN_ENGINE_DEVICE_RULE kAllowAll = {TRUE, 'a', -1, -1, TRUE, TRUE, TRUE};
constexpr ZN_ENGINE_DEVICE_RULE kNull = {TRUE, 'c', 1, 3, TRUE, TRUE, FALSE};
constexpr ZN_ENGINE_DEVICE_RULE kMakeNull = {TRUE, 'c', 1, 3, FALSE, FALSE, TRUE};
constexpr ZN_ENGINE_DEVICE_RULE kNoWriteNull = {FALSE, 'c', 1, 3, FALSE, TRUE, FALSE};
constexpr ZN_ENGINE_DEVICE_RULE kNoMemory = {FALSE, 'c', 1, -1, TRUE, TRUE, TRUE};
constexpr ZN_ENGINE_DEVICE_RULE kMakeBlocks = {TRUE, 'b', -1, -1, FALSE, FALSE, TRUE};

UnitDevices devices(const std::vector<ZN_ENGINE_DEVICE_RULE>& rules, const char* policy = "strict")
{
    const auto properties = zncrun::device_properties(rules);
    EXPECT_EQ(get<std::string>(properties, "DevicePolicy"), policy);
    return get<UnitDevices>(properties, "DeviceAllow");
}

TEST(DeviceProperties, AreTheAllowedDevices)
{
    EXPECT_EQ(devices({kDenyAll, kNull, kMakeNull, kMakeBlocks}),
              (UnitDevices{{"/dev/char/1:3", "rwm"}, {"block-*", "m"}}));
}

TEST(DeviceProperties, AllowAllIsNoPolicy)
{
    EXPECT_EQ(devices({kDenyAll, kNull, kAllowAll}, "auto"), UnitDevices());
    EXPECT_EQ(devices({kAllowAll, kNull}, "auto"), UnitDevices());
}

TEST(DeviceProperties, LaterRulesTakeAway)
{
    EXPECT_EQ(devices({kDenyAll, kNull, kNoWriteNull}), (UnitDevices{{"/dev/char/1:3", "r"}}));
    EXPECT_EQ(devices({kNull, kDenyAll}), UnitDevices());
}

TEST(DeviceProperties, RefuseWhatSystemdCannotExpress)
{
    EXPECT_THROW(devices({kAllowAll, kNoMemory}), Failure);
    EXPECT_THROW(devices({kDenyAll, kNull, kNoMemory}), Failure);
}

TEST(DeviceProperties, IncludeTheDevicesOfEveryContainer)
{
    const auto properties = zncrun::device_properties(Json::object());
    const auto all = get<UnitDevices>(properties, "DeviceAllow");
    for (const char* name : {"/dev/char/1:3", "/dev/char/1:5", "/dev/char/5:0", "char-pts"})
        EXPECT_NE(std::find(all.begin(), all.end(), UnitDevices::value_type(name, "rwm")),
                  all.end())
            << name;
    EXPECT_EQ(get<std::string>(properties, "DevicePolicy"), "strict");
}

} // namespace
