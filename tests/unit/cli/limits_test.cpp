#include "cli/containers/limits.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using namespace zncctl;

Arguments arguments(std::initializer_list<std::pair<const char*, const char*>> options)
{
    Arguments args;
    for (const auto& [name, value] : options)
        args.add_option(name, value);
    return args;
}

std::string limits_text(std::initializer_list<std::pair<const char*, const char*>> options)
{
    std::string problem;
    const auto limits = limits_of(arguments(options), problem);
    return limits ? compact(*limits) : problem;
}

TEST(Limits, SizesHaveUnits)
{
    EXPECT_EQ(to_bytes("0"), 0);
    EXPECT_EQ(to_bytes("1b"), 1);
    EXPECT_EQ(to_bytes("2k"), 2048);
    EXPECT_EQ(to_bytes("3M"), 3 << 20);
    EXPECT_EQ(to_bytes("4g"), std::int64_t{4} << 30);
    EXPECT_EQ(to_bytes("5T"), std::int64_t{5} << 40);
    EXPECT_EQ(to_bytes("9223372036854775807"), INT64_MAX);
    EXPECT_EQ(to_bytes("8388607t"), std::int64_t{8388607} << 40);
}

TEST(Limits, OtherSizesAreRefused)
{
    for (const char* text : {"", "k", "-1", "-1k", "+1", " 1", "1 k", "1kb", "1.5g", "0x10",
                             "9223372036854775808", "8388608t", "1p"})
        EXPECT_EQ(to_bytes(text), std::nullopt) << text;
}

TEST(Limits, ProcessorsHaveDecimals)
{
    EXPECT_EQ(to_processors("1"), 1000000);
    EXPECT_EQ(to_processors("0.5"), 500000);
    EXPECT_EQ(to_processors("9999.999999"), 9999999999);
    EXPECT_EQ(to_processors("0.000001"), 1);
    for (const char* text :
         {"", ".", "1.", ".5", "0", "0.0", "-1", "1e3", "10000", "1.0000001", "1,5", " 1"})
        EXPECT_EQ(to_processors(text), std::nullopt) << text;
}

TEST(Limits, OptionsBecomeMembersOfTheResources)
{
    EXPECT_EQ(limits_text({}), "{}");
    EXPECT_EQ(limits_text({{"memory", "64m"}, {"memory-swap", "-1"}}),
              R"({"memory":{"limit":67108864,"swap":-1}})");
    EXPECT_EQ(limits_text({{"cpus", "1.5"}, {"cpu-shares", "512"}, {"cpuset-cpus", "0-1"}}),
              R"({"cpu":{"quota":150000,"period":100000,"shares":512,"cpus":"0-1"}})");
    EXPECT_EQ(limits_text({{"pids-limit", "100"}}), R"({"pids":{"limit":100}})");
    EXPECT_EQ(limits_text({{"pids-limit", "-1"}, {"memory", "-1"}}),
              R"({"memory":{"limit":-1},"pids":{"limit":-1}})");
}

TEST(Limits, AWrongValueIsNamedWithItsOption)
{
    EXPECT_EQ(limits_text({{"memory", "64x"}}), "'64x' is not a valid value of --memory");
    EXPECT_EQ(limits_text({{"memory", "-2"}}), "'-2' is not a valid value of --memory");
    EXPECT_EQ(limits_text({{"cpus", "many"}}), "'many' is not a valid value of --cpus");
    EXPECT_EQ(limits_text({{"cpu-shares", "-1"}}), "'-1' is not a valid value of --cpu-shares");
    EXPECT_EQ(limits_text({{"pids-limit", ""}}), "'' is not a valid value of --pids-limit");
}

} // namespace
