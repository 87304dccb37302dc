#include "cli/containers/environment.hpp"

#include <cstdlib>
#include <gtest/gtest.h>

namespace {

using zncctl::Environment;

std::vector<std::string> texts(Environment environment)
{
    const std::vector<char*> pointers = environment.pointers();
    EXPECT_EQ(pointers.back(), nullptr);
    return {pointers.begin(), pointers.end() - 1};
}

using Texts = std::vector<std::string>;

TEST(Environment, KeepsTheLastOfSeveralEntriesInThePlaceOfTheFirst)
{
    EXPECT_EQ(texts(Environment({"A=1", "B=2", "A=3", "AB=4"})), (Texts{"A=3", "B=2", "AB=4"}));
}

TEST(Environment, KeepsEntriesWithoutAValueAsTheyAre)
{
    const Environment environment({"A", "B="});
    EXPECT_EQ(texts(environment), (Texts{"A", "B="}));
    EXPECT_EQ(environment.value("A"), nullptr);
    EXPECT_STREQ(environment.value("B"), "");
}

TEST(Environment, AppliesWhatTheUserGives)
{
    Environment environment({"A=1"});
    EXPECT_TRUE(environment.apply("A=2=3"));
    EXPECT_TRUE(environment.apply("B="));
    EXPECT_FALSE(environment.apply("=1"));
    EXPECT_FALSE(environment.apply(""));
    EXPECT_EQ(texts(environment), (Texts{"A=2=3", "B="}));
    EXPECT_STREQ(environment.value("A"), "2=3");
}

TEST(Environment, ANameAloneTakesOwnValueIfThereIsOne)
{
    ASSERT_EQ(::setenv("ZNC_TEST_VALUE", "own", 1), 0);
    ASSERT_EQ(::unsetenv("ZNC_TEST_NONE"), 0);
    Environment environment({"ZNC_TEST_NONE=configured"});
    EXPECT_TRUE(environment.apply("ZNC_TEST_VALUE"));
    EXPECT_TRUE(environment.apply("ZNC_TEST_NONE"));
    EXPECT_EQ(texts(environment), (Texts{"ZNC_TEST_NONE=configured", "ZNC_TEST_VALUE=own"}));
}

} // namespace
