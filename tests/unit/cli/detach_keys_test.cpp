// Tests of the keys that detach from a terminal.
#include "cli/terminal/detach_keys.hpp"

#include <gtest/gtest.h>

using namespace zncctl;

TEST(DetachKeys, AreRecognisedHoweverTheyArrive)
{
    auto keys = DetachKeys::parse(kUsualDetachKeys);
    ASSERT_TRUE(keys);
    EXPECT_EQ(keys->pass("ls\r"), "ls\r");
    EXPECT_EQ(keys->pass("\x10"), "");
    EXPECT_FALSE(keys->typed());
    EXPECT_EQ(keys->pass("\x11rest"), "");
    EXPECT_TRUE(keys->typed());
    auto at_once = DetachKeys::parse(kUsualDetachKeys);
    EXPECT_EQ(at_once->pass("before\x10\x11"), "before");
    EXPECT_TRUE(at_once->typed());
}

TEST(DetachKeys, PassOnWhatOnlyBeginsLikeThem)
{
    auto keys = DetachKeys::parse("a,a,b");
    EXPECT_EQ(keys->pass("a"), "");
    EXPECT_EQ(keys->pass("ac"), "aac");
    EXPECT_EQ(keys->pass("aaa"), "a");
    EXPECT_FALSE(keys->typed());
    EXPECT_EQ(keys->pass("b"), "");
    EXPECT_TRUE(keys->typed());
    auto twice = DetachKeys::parse(kUsualDetachKeys);
    EXPECT_EQ(twice->pass("\x10\x10"), "\x10");
    EXPECT_EQ(twice->pass("x"), "\x10x");
}

TEST(DetachKeys, MayBeNone)
{
    auto keys = DetachKeys::parse("");
    EXPECT_EQ(keys->pass("\x10\x11"), "\x10\x11");
    EXPECT_FALSE(keys->typed());
}

TEST(DetachKeys, HaveNames)
{
    auto keys = DetachKeys::parse("ctrl-@,ctrl-[,ctrl-_,Z,,");
    EXPECT_FALSE(keys);
    keys = DetachKeys::parse("ctrl-[,ctrl-_,Z");
    ASSERT_TRUE(keys);
    EXPECT_EQ(keys->pass("\x1b\x1fZ"), "");
    EXPECT_TRUE(keys->typed());
    for (const char* wrong : {"ctrl", "ctrl-", "ctrl-P", "ctrl-pp", "ctrl-1", "ab", ",", "a,"})
        EXPECT_FALSE(DetachKeys::parse(wrong)) << wrong;
}
