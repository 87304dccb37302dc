// Tests of how zncctl prints untrusted text.
#include "front/escape.hpp"
#include "front/json.hpp"
#include "front/output.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace zncctl;

TEST(Printable, KeepsOrdinaryTextInAnyLanguage)
{
    for (const char* text : {"", "plain", "gr\xc3\xbc\xc3\x9f", "\xe6\x97\xa5\xe6\x9c\xac",
                             "\xf0\x9f\x90\xb3", "a\xc2\xa0z"})
        EXPECT_EQ(printable(text), text);
}

TEST(Printable, ReplacesControlsOfEveryKind)
{
    EXPECT_EQ(printable("a\x1b[2J\r\n\t\x7f"), "a?[2J????");
    EXPECT_EQ(printable("a\x9b"
                        "2J"),
              "a?2J"); // C1 as a byte
    EXPECT_EQ(printable("a\xc2\x9b"
                        "2J"),
              "a?2J"); // C1 as a character
    EXPECT_EQ(printable("a\xe2\x80\xae"
                        "b"),
              "a?b"); // right-to-left override
    EXPECT_EQ(printable("a\xe2\x81\xa6"
                        "b"),
              "a?b"); // isolate
    EXPECT_EQ(printable("a\xd8\x9c"
                        "b"),
              "a?b"); // Arabic letter mark
    EXPECT_EQ(printable("a\xe2\x80\xa8"
                        "b"),
              "a?b"); // line separator
    EXPECT_EQ(printable("a\xe2\x80\xa9"
                        "b"),
              "a?b"); // paragraph separator
    EXPECT_EQ(printable("a\xf3\xa0\x81\x81"
                        "b"),
              "a?b"); // tag character
}

TEST(Printable, ReplacesEachByteThatIsNoUtf8)
{
    EXPECT_EQ(printable("\xff"), "?");
    EXPECT_EQ(printable("\xc0\x9b"), "??"); // overlong encoding
    EXPECT_EQ(printable("\xe0\x82\x9b"), "???");
    EXPECT_EQ(printable("\xed\xa0\x80"), "???");      // half of a surrogate pair
    EXPECT_EQ(printable("\xf4\x90\x80\x80"), "????"); // beyond the last character
    EXPECT_EQ(printable("a\xe2\x80"), "a??");         // truncated
    EXPECT_EQ(printable("\xc3("), "?(");
}

TEST(Printable, OfLinesKeepsLineEndsAndTabs)
{
    EXPECT_EQ(printable_lines("a\n\tb\x1b\xc2\x85"), "a\n\tb??");
}

TEST(Printable, JsonStaysTheSameDocument)
{
    const std::string key = "a\x1b\x7f\xc2\x9b\xe2\x80\xae\xf3\xa0\x81\x81";
    const std::string shown = printable_json(pretty({{"key", key}}));
    EXPECT_EQ(shown, "{\n  \"key\": \"a\\u001b\\u007f\\u009b\\u202e\\udb40\\udc41\"\n}\n");
    EXPECT_EQ(text_of(parse_json(shown).value(), "key"), key);
    EXPECT_EQ(printable_json("\"\xff\""), "\"\\ufffd\"");
}

TEST(Table, CountsCharactersAndShowsNoControls)
{
    EXPECT_EQ(table({{"A", "B"}, {"\xc3\xbc\x1b", "x"}, {"abc", "y\xc2\x9b"}}),
              "A    B\n\xc3\xbc?   x\nabc  y?\n");
    EXPECT_EQ(first_characters("a\xc3\xbc"
                               "b",
                               2),
              "a\xc3\xbc");
    EXPECT_EQ(character_count("a\xc3\xbc\xff"), 3U);
}

TEST(Result, HoldsNoControlsWhateverItShows)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(print_result("one\x1b\ntwo\xc2\x9b"), 0);
    EXPECT_EQ(print_json("[\"\xc2\x9b\"]"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "one?\ntwo?\n[\"\\u009b\"]\n");
}

TEST(Result, WhatTheLibraryPrintsIsMadePrintable)
{
    testing::internal::CaptureStderr();
    call_library([] {
        std::printf("mount of \x1b]0;title\x07 failed.\n");
        return 0;
    });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "mount of ?]0;title? failed.\n");
}

TEST(Utf8, KeepsCharactersAndNamesOtherBytes)
{
    EXPECT_EQ(utf8("a\xc3\xa9\n"), "a\xc3\xa9\n");
    EXPECT_EQ(utf8("\xff \xc0\xaf \xed\xa0\x80 \xe2\x82"),
              "\\xff \\xc0\\xaf \\xed\\xa0\\x80 \\xe2\\x82");
}

TEST(Utf8, IsToldFromOtherBytes)
{
    for (const char* text : {"", "plain", "\xc3\xa9", "\xf0\x9f\x98\x80", "\x1b"})
        EXPECT_TRUE(is_utf8(text)) << text;
    for (const char* text : {"\xff", "a\xc3", "\xc0\x80", "\xed\xa0\x80", "\xf5\x80\x80\x80"})
        EXPECT_FALSE(is_utf8(text));
    EXPECT_FALSE(has_controls("a b"));
    for (const char* text : {"a\nb", "\x1b[2J", "\xe2\x80\xae", "\xff"})
        EXPECT_TRUE(has_controls(text));
}
