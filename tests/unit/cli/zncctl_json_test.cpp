// Documents of strangers, read strictly, and documents written.
#include "front/json.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using namespace zncctl;

namespace {

// Why a text is refused, "" if it is not.
std::string problem_of(std::string_view text, Annotations annotations = Annotations::kUnique)
{
    JsonNotes notes;
    const bool read = parse_json(text, &notes, annotations).has_value();
    EXPECT_EQ(read, notes.problem.empty());
    EXPECT_EQ(notes.duplicate_key.has_value(), notes.problem.starts_with("duplicate key "));
    return notes.problem;
}

std::string again(std::string_view text)
{
    return compact(parse_json(text).value());
}

bool is_inexact(std::string_view text)
{
    JsonNotes notes;
    EXPECT_TRUE(parse_json(text, &notes)) << notes.problem;
    return notes.inexact;
}

std::string repeated(const char* text, std::size_t count)
{
    std::string result;
    for (std::size_t i = 0; i < count; i++)
        result += text;
    return result;
}

} // namespace

TEST(ParseJson, ReportsTheErrorPosition)
{
    EXPECT_EQ(problem_of("{\n \"a\": }"), "no JSON at line 2, column 7");
    EXPECT_EQ(problem_of("{} x"), "no JSON at line 1, column 4");
    EXPECT_EQ(problem_of("[1,\n2"), "no JSON at line 2, column 1");
}

TEST(ParseJson, RefusesTextAfterTheDocument)
{
    EXPECT_EQ(problem_of("{} \n"), "");
    for (const std::string_view text :
         {std::string_view("{}\0x", 4), std::string_view("{}\0", 3), std::string_view("")})
        EXPECT_NE(problem_of(text), "") << text;
}

TEST(ParseJson, TakesNoOtherJsonThanTheStandards)
{
    for (const char* text :
         {"[01]", "[1.]", "[.5]", "[+1]", "[1,]", "{\"a\":1,}", "['a']", "[NaN]", "[-]", "// x\n[]",
          "[\"a\nb\"]", "[\"\\x\"]", "nul", "[\"\\u12g4\"]", "{1:2}", "[1e]", "\"a", "[1}"})
        EXPECT_NE(problem_of(text), "") << text;
}

TEST(ParseJson, KeepsIntegersOf64Bits)
{
    for (const char* text : {"[18446744073709551615]", "[-9223372036854775808]",
                             "[9007199254740993]", "[0]", "[1234567890123456789]"}) {
        EXPECT_EQ(again(text), text);
        EXPECT_FALSE(is_inexact(text)) << text;
    }
    EXPECT_EQ(again("[-0, -0.0, 1.0, 1e3, 10e-1]"), "[0,0,1,1000,1]");
    const Json numbers =
        parse_json("[9223372036854775807,9223372036854775808,1.5,\"1\",1e3]").value();
    EXPECT_EQ(integer(&numbers[0]), INT64_MAX);
    EXPECT_EQ(integer(&numbers[1]), std::nullopt);
    EXPECT_EQ(integer(&numbers[2]), std::nullopt);
    EXPECT_EQ(integer(&numbers[3]), std::nullopt);
    EXPECT_EQ(integer(&numbers[4]), 1000);
    EXPECT_EQ(integer(nullptr), std::nullopt);
}

TEST(ParseJson, ReportsNumbersThatLoseDigits)
{
    EXPECT_TRUE(is_inexact("[18446744073709551616]"));
    EXPECT_TRUE(is_inexact("[-9223372036854775809]"));
    EXPECT_TRUE(is_inexact("{\"a\":{\"b\":0.12345678901234567}}"));
    EXPECT_FALSE(is_inexact("[0.5, 1e300, 123456789012.345]"));
    EXPECT_FALSE(is_inexact("[\"18446744073709551616\"]"));
}

TEST(ParseJson, RefusesNumbersThatAreTooLarge)
{
    EXPECT_EQ(problem_of("[1e400]"), "a number that is too large at line 1, column 7");
    EXPECT_NE(problem_of("[-1e400]"), "");
    EXPECT_NE(problem_of("[" + std::string(1'000'000, '9') + "]"), "");
    EXPECT_EQ(problem_of("[1e-400]"), "");
}

TEST(ParseJson, RefusesWhatIsNoUtf8)
{
    EXPECT_EQ(problem_of("[\"\xc3\xa9\xf0\x9f\x90\xa7\"]"), "");
    for (const char* text : {"[\"\xff\"]", "[\"\xc0\xaf\"]", "[\"\xed\xa0\x80\"]", "[\"\xe2\x82\"]",
                             "[\"\xf4\x90\x80\x80\"]", "{\"\xfe\":1}", "[\"\x80\"]"})
        EXPECT_NE(problem_of(text), "") << text;
}

TEST(ParseJson, RefusesUnpairedSurrogates)
{
    EXPECT_EQ(again(R"(["\ud83d\udc27"])"), "[\"\xf0\x9f\x90\xa7\"]");
    for (const char* text : {R"(["\ud83d"])", R"(["\udc27"])", R"(["\ud83d\u0041"])",
                             R"({"\udc27\ud83d":1})", R"(["\ud83dx"])"})
        EXPECT_NE(problem_of(text), "") << text;
}

TEST(ParseJson, RefusesANulInATextOrAKey)
{
    EXPECT_EQ(problem_of(R"(["a\u0000b"])"), "a NUL in a text at line 1, column 11");
    EXPECT_NE(problem_of(R"({"digest\u0000x":1})"), "");
    EXPECT_NE(problem_of(std::string_view("[\"a\0b\"]", 7)), "");
    EXPECT_EQ(problem_of(R"(["a\\u0000b"])"), "");
}

TEST(ParseJson, RefusesDocumentsThatAreNestedTooDeep)
{
    EXPECT_EQ(problem_of(repeated("[", 200) + repeated("]", 200)), "");
    EXPECT_EQ(problem_of(repeated("[", 1001) + repeated("]", 1001)),
              "more than 200 levels at line 1, column 201");
    EXPECT_NE(problem_of(repeated("{\"a\":", 100'000) + "1" + repeated("}", 100'000)), "");
    EXPECT_NE(problem_of(repeated("[", 1'000'000)), "");
}

TEST(ParseJson, RefusesMoreBytesThanTheLibraryReads)
{
    EXPECT_EQ(problem_of(std::string((std::size_t{64} << 20U) + 1, ' ')),
              "it has more than 67108864 bytes");
    JsonNotes notes;
    EXPECT_TRUE(parse_json("[\"xx\"]", &notes, Annotations::kUnique, {.bytes = 6}));
    EXPECT_FALSE(parse_json("[\"xx\"] ", &notes, Annotations::kUnique, {.bytes = 6}));
    EXPECT_EQ(notes.problem, "it has more than 6 bytes");
}

// Looking for each key among those before it would take hours.
TEST(ParseJson, ReadsObjectsOfManyMembers)
{
    std::string text = "{";
    for (int i = 0; i < 200'000; i++)
        text += "\"" + std::to_string(i) + "\":0,";
    text.back() = '}';
    const auto json = parse_json(text);
    ASSERT_TRUE(json);
    EXPECT_EQ(json->size(), 200'000U);
    EXPECT_EQ(compact(*json), text);
    text.back() = ',';
    EXPECT_EQ(problem_of(text + "\"7\":1}"), "duplicate key \"7\"");
}

TEST(ParseJson, FindsDuplicateKeysAtEveryDepthWhateverTheirCase)
{
    EXPECT_EQ(problem_of(R"({"a":1,"b":{"a":2},"c":[{"a":3},{"a":4}]})"), "");
    EXPECT_EQ(problem_of(R"({"digest":1,"digest":2})"), "duplicate key \"digest\"");
    EXPECT_EQ(problem_of(R"({"digest":1,"Digest":2})"), "duplicate key \"Digest\"");
    EXPECT_EQ(problem_of(R"([{"a":[[{"x":{"b":1,"B":2}}]]}])"), "duplicate key \"B\"");
    EXPECT_EQ(problem_of(R"({"a":1,"\u0061":2})"), "duplicate key \"a\"");
    EXPECT_EQ(problem_of(R"({"a":1,"\u0041":2})"), "duplicate key \"A\"");
    EXPECT_EQ(problem_of(R"({"":1,"":2})"), "duplicate key \"\"");
}

TEST(ParseJson, KeysThatAreDataMayDifferInCase)
{
    EXPECT_EQ(problem_of(R"({"Labels":{"Maintainer":"a","maintainer":"b"}})"), "");
    EXPECT_EQ(problem_of(R"({"Labels":{"a":"a","a":"b"}})"), "duplicate key \"a\"");
    EXPECT_EQ(problem_of(R"({"Labels":[{"a":1,"A":2}]})"), "duplicate key \"A\"");
    EXPECT_EQ(problem_of(R"({"annotations":{"org.opencontainers.image.ref.name":"a",
                             "org.opencontainers.image.REF.name":"b"}})"),
              "duplicate key \"org.opencontainers.image.REF.name\"");
}

TEST(ParseJson, DuplicateAnnotationsAreAllowedOnRequest)
{
    constexpr const char* kText = R"({"annotations":{"port":"80","port":"81"}})";
    EXPECT_EQ(problem_of(kText), "duplicate key \"port\"");
    EXPECT_EQ(problem_of(kText, Annotations::kMayRepeat), "");
    EXPECT_EQ(problem_of(R"({"root":{},"root":{}})", Annotations::kMayRepeat),
              "duplicate key \"root\"");
    EXPECT_EQ(text_of(*member(*parse_json(kText, nullptr, Annotations::kMayRepeat), "annotations"),
                      "port"),
              "80");
}

TEST(Members, AreFoundInObjectsOnly)
{
    const Json json = parse_json(R"({"A":{"b":"text"},"list":["x"],"n":null})").value();
    EXPECT_EQ(member(json, "a"), nullptr);
    EXPECT_EQ(text_of(any_case_member(json, "a"), "b"), "text");
    EXPECT_EQ(member(member(json, "list"), "x"), nullptr);
    EXPECT_EQ(member(nullptr, "x"), nullptr);
    EXPECT_NE(member(json, "n"), nullptr);
    EXPECT_EQ(text_of(json, "list"), "");
    EXPECT_EQ(children(member(json, "list")).size(), 1U);
    EXPECT_EQ(children(member(json, "A")).size(), 1U);
    EXPECT_EQ(children(member(member(json, "A"), "b")).size(), 0U);
    EXPECT_EQ(children(nullptr).size(), 0U);
}

TEST(Pretty, IndentsByTwoBlanksAndKeepsTheOrder)
{
    EXPECT_EQ(pretty(parse_json(R"({"b":[1,{"a":"\n"}],"a":{},"c":[]})").value()),
              "{\n  \"b\": [\n    1,\n    {\n      \"a\": \"\\n\"\n    }\n  ],\n"
              "  \"a\": {},\n  \"c\": []\n}\n");
}

TEST(Compact, WritesTextsThatAreNoUtf8AsUtf8)
{
    EXPECT_EQ(compact({{"a", "\xff\x01/\x7f"}}), "{\"a\":\"\xef\xbf\xbd\\u0001/\x7f\"}");
}

TEST(Json, TextsOfSkipsElementsThatAreNotStrings)
{
    const Json array = {"a", 5, "b", nullptr};
    EXPECT_EQ(texts_of(&array), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(texts_of(nullptr).empty());
    const Json text = "a";
    EXPECT_TRUE(texts_of(&text).empty());
}
