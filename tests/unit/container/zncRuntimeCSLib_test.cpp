#include "alloc_fault.hpp"
#include "zncRuntimeCSLib.hpp"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using znc::CJsonPtr;

std::string printed(const cJSON* tree)
{
    const znc::CJsonText text(cJSON_PrintUnformatted(tree));
    return text != nullptr ? text.get() : "(none)";
}

CJsonPtr parsed(const char* text)
{
    CJsonPtr tree(cJSON_Parse(text));
    EXPECT_NE(tree, nullptr) << text;
    return tree;
}

CJsonPtr build(std::vector<zncParam> params)
{
    return CJsonPtr(zncParamObjInit(params.data(), static_cast<int>(params.size())));
}

char* text(const char* s)
{
    return const_cast<char*>(s);
}

zncParam of_type(int type, const char* name)
{
    zncParam param = znc::integer_param(name, 1);
    std::memcpy(&param.type, &type, sizeof type);
    return param;
}

// ---------------------------------------------------------------- building

TEST(ParamObjInit, WritesEveryTypeInTableOrder)
{
    char* strings[] = {text("x"), text("y")};
    const CJsonPtr item = parsed(R"([{"k":1}])");
    const CJsonPtr object =
        build({znc::integer_param("n", -7), znc::string_param("s", "v"),
               znc::strings_param("a", strings, 2), znc::object_param("o", item.get())});
    EXPECT_EQ(printed(object.get()), R"({"n":-7,"s":"v","a":["x","y"],"o":[{"k":1}]})");
}

TEST(ParamObjInit, NoTableGivesAnEmptyObjectWhateverTheCount)
{
    for (const int count : {-1, 0, 5}) {
        const CJsonPtr object(zncParamObjInit(nullptr, count));
        EXPECT_EQ(printed(object.get()), "{}");
    }
}

TEST(ParamObjInit, CountOfZeroOrLessGivesAnEmptyObject)
{
    zncParam param = znc::integer_param("n", 1);
    for (const int count : {-3, 0})
        EXPECT_EQ(printed(CJsonPtr(zncParamObjInit(&param, count)).get()), "{}");
}

TEST(ParamObjInit, IntegersTravelAsDoubles)
{
    const CJsonPtr object = build({znc::integer_param("n", (1LL << 53) + 1)});
    EXPECT_EQ(cJSON_GetObjectItem(object.get(), "n")->valuedouble, 9007199254740992.0);
}

TEST(ParamObjInit, NullStringLeavesItsKeyOutAndSucceeds)
{
    const CJsonPtr object = build({znc::string_param("s", nullptr), znc::integer_param("n", 1)});
    EXPECT_EQ(printed(object.get()), R"({"n":1})");
}

TEST(ParamObjInit, EmptyStringArraysAreLeftOut)
{
    char* strings[] = {text("x")};
    const CJsonPtr object =
        build({znc::strings_param("null", nullptr, 1), znc::strings_param("zero", strings, 0),
               znc::strings_param("negative", strings, -1)});
    EXPECT_EQ(printed(object.get()), "{}");
}

TEST(ParamObjInit, StringArrayElementThatCannotBeMadeFailsWithENOMEM)
{
    char* strings[] = {text("x"), nullptr};
    errno = 0;
    EXPECT_EQ(build({znc::strings_param("a", strings, 2)}), nullptr);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(ParamObjInit, StringArrayThatCannotBeAddedFailsWithEINVAL)
{
    char* strings[] = {text("x")};
    errno = 0;
    EXPECT_EQ(build({znc::strings_param(nullptr, strings, 1)}), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST(ParamObjInit, NumbersAndStringsThatCannotBeAddedAreLeftOut)
{
    const CJsonPtr object =
        build({znc::integer_param(nullptr, 1), znc::string_param(nullptr, "v")});
    EXPECT_EQ(printed(object.get()), "{}");
}

TEST(ParamObjInit, ObjectsAreReferencesThatOutliveTheirHolder)
{
    for (const char* content :
         {R"([1,"a"])", R"({"k":{"m":[]}})", R"("text")", "5", "true", "null"}) {
        const CJsonPtr item = parsed(content);
        CJsonPtr object = build({znc::object_param("o", item.get())});
        EXPECT_EQ(printed(object.get()), std::string(R"({"o":)") + content + "}");
        object.reset();
        EXPECT_EQ(printed(item.get()), content);
    }
}

TEST(ParamObjInit, NullObjectFailsWithEINVAL)
{
    errno = 0;
    EXPECT_EQ(build({znc::object_param("o", nullptr)}), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST(ParamObjInit, UnknownTypesAreSkipped)
{
    const CJsonPtr object = build({of_type(4, "a"), of_type(-1, "b"), znc::integer_param("n", 1)});
    EXPECT_EQ(printed(object.get()), R"({"n":1})");
}

// The missing entries show which results are ignored; nothing may leak.
TEST(ParamObjInit, ShortMemoryFailsOrLeavesOutSingleKeys)
{
    char* strings[] = {text("x")};
    const CJsonPtr item = parsed("[1]");
    std::vector<zncParam> params = {znc::integer_param("n", 1), znc::string_param("s", "v"),
                                    znc::strings_param("a", strings, 1),
                                    znc::object_param("o", item.get())};
    alloc_fault::arm(0);
    EXPECT_EQ(printed(build(params).get()), R"({"n":1,"s":"v","a":["x"],"o":[1]})");
    const unsigned total = alloc_fault::disarm();
    ASSERT_GE(total, 12U);
    bool failed = false;
    bool leftOut = false;
    for (unsigned n = 1; n <= total; n++) {
        errno = 0;
        alloc_fault::arm(n);
        const CJsonPtr object = build(params);
        const int number = errno;
        alloc_fault::disarm();
        if (object == nullptr) {
            EXPECT_TRUE(number == ENOMEM || number == EINVAL) << n << ": " << number;
            failed = true;
        } else if (cJSON_GetArraySize(object.get()) != 4) {
            // Only ignored results: adding the number, and everything for the string.
            EXPECT_NE(cJSON_GetObjectItem(object.get(), "a"), nullptr) << n;
            EXPECT_NE(cJSON_GetObjectItem(object.get(), "o"), nullptr) << n;
            leftOut = true;
        }
    }
    EXPECT_TRUE(failed);
    EXPECT_TRUE(leftOut);
}

TEST(ParamObjInit, NoMemoryForTheObjectFailsWithENOMEM)
{
    alloc_fault::arm(1);
    errno = 0;
    const CJsonPtr object(zncParamObjInit(nullptr, 0));
    const int number = errno;
    alloc_fault::disarm();
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(number, ENOMEM);
}

// ---------------------------------------------------------------- reading

TEST(ParamObjGet, NoObjectNoTableOrNoEntriesFailsWithEINVAL)
{
    const CJsonPtr object = parsed("{}");
    zncParam param = znc::integer_param("n", 1);
    const auto fails = [](STATUS status) { return status == ERROR && errno == EINVAL; };
    errno = 0;
    EXPECT_TRUE(fails(zncParamObjGet(nullptr, &param, 1)));
    errno = 0;
    EXPECT_TRUE(fails(zncParamObjGet(object.get(), nullptr, 1)));
    errno = 0;
    EXPECT_TRUE(fails(zncParamObjGet(object.get(), &param, 0)));
}

TEST(ParamObjGet, MissingKeysKeepTheirDefaults)
{
    const CJsonPtr object = parsed(R"({"containerId":"web"})");
    zncParam params[] = {znc::string_param("containerId", nullptr), znc::integer_param("signo", 15),
                         znc::integer_param("errno", -1), znc::object_param("body", nullptr)};
    ASSERT_EQ(zncParamObjGet(object.get(), params, 4), OK);
    EXPECT_STREQ(znc::param_pointer<char>(params[0]), "web");
    EXPECT_EQ(params[1].value, 15);
    EXPECT_EQ(params[2].value, -1);
    EXPECT_EQ(params[3].value, 0);
}

TEST(ParamObjGet, KeysMatchInAnyCase)
{
    const CJsonPtr object = parsed(R"({"SIGNO":9})");
    zncParam param = znc::integer_param("signo", 15);
    ASSERT_EQ(zncParamObjGet(object.get(), &param, 1), OK);
    EXPECT_EQ(param.value, 9);
}

TEST(ParamObjGet, AnItemThatIsNoNumberIsTheInteger0)
{
    const CJsonPtr object = parsed(R"({"n":"12"})");
    zncParam param = znc::integer_param("n", 15);
    ASSERT_EQ(zncParamObjGet(object.get(), &param, 1), OK);
    EXPECT_EQ(param.value, 0);
}

TEST(ParamObjGet, StringsPointIntoTheTree)
{
    const CJsonPtr object = parsed(R"({"s":"v"})");
    zncParam param = znc::string_param("s", nullptr);
    ASSERT_EQ(zncParamObjGet(object.get(), &param, 1), OK);
    EXPECT_EQ(znc::param_pointer<char>(param), cJSON_GetObjectItem(object.get(), "s")->valuestring);
}

TEST(ParamObjGet, StringOfAnotherTypeFailsWithoutAnErrorNumber)
{
    const CJsonPtr object = parsed(R"({"s":5,"n":9})");
    zncParam params[] = {znc::string_param("s", nullptr), znc::integer_param("n", 1)};
    errno = 4242;
    EXPECT_EQ(zncParamObjGet(object.get(), params, 2), ERROR);
    EXPECT_EQ(errno, 4242);
    EXPECT_EQ(params[0].value, 0);
    EXPECT_EQ(params[1].value, 1) << "entries behind the failing one are not read";
}

TEST(ParamObjGet, StringArraysBecomeNullTerminatedVectors)
{
    const CJsonPtr object = parsed(R"({"a":["x","y"]})");
    zncParam param = znc::strings_param("a", nullptr, 0);
    ASSERT_EQ(zncParamObjGet(object.get(), &param, 1), OK);
    EXPECT_EQ(param.number, 2);
    char** strings = znc::param_pointer<char*>(param);
    EXPECT_STREQ(strings[0], "x");
    EXPECT_STREQ(strings[1], "y");
    EXPECT_EQ(strings[2], nullptr);
    EXPECT_EQ(zncParamObjDestroy(&param, 1), OK);
}

TEST(ParamObjGet, EmptyStringArrayLeavesTheEntryAlone)
{
    const CJsonPtr object = parsed(R"({"a":[],"b":"no array"})");
    zncParam params[] = {znc::strings_param("a", nullptr, 3), znc::strings_param("b", nullptr, 4)};
    ASSERT_EQ(zncParamObjGet(object.get(), params, 2), OK);
    EXPECT_EQ(params[0].value, 0);
    EXPECT_EQ(params[0].number, 3);
    EXPECT_EQ(params[1].value, 0);
    EXPECT_EQ(params[1].number, 4);
}

// The memory checkers detect whether each vector is freed exactly once.
TEST(ParamObjGet, FailureFreesTheVectorsReadSoFarAndTheFailingOne)
{
    const CJsonPtr object = parsed(R"({"a":["x"],"b":["y",5,"z"],"c":["w"]})");
    zncParam params[] = {znc::strings_param("a", nullptr, 0), znc::strings_param("b", nullptr, 0),
                         znc::strings_param("c", nullptr, 0)};
    errno = 4242;
    EXPECT_EQ(zncParamObjGet(object.get(), params, 3), ERROR);
    EXPECT_EQ(errno, 4242);
    EXPECT_NE(params[0].value, 0) << "freed pointers are not cleared";
    EXPECT_NE(params[1].value, 0) << "freed pointers are not cleared";
    EXPECT_EQ(params[2].value, 0);
}

TEST(ParamObjGet, NoMemoryForAVectorFailsWithENOMEM)
{
    const CJsonPtr object = parsed(R"({"a":["x"],"b":["y"]})");
    for (unsigned n = 1; n <= 2; n++) {
        zncParam params[] = {znc::strings_param("a", nullptr, 0),
                             znc::strings_param("b", nullptr, 0)};
        alloc_fault::arm(n);
        errno = 0;
        const STATUS status = zncParamObjGet(object.get(), params, 2);
        const int number = errno;
        alloc_fault::disarm();
        EXPECT_EQ(status, ERROR);
        EXPECT_EQ(number, ENOMEM);
        EXPECT_EQ(params[1].value, 0);
    }
}

TEST(ParamObjGet, ObjectsAreTheItemsThemselves)
{
    const CJsonPtr object = parsed(R"({"body":[1]})");
    zncParam param = znc::object_param("body", nullptr);
    ASSERT_EQ(zncParamObjGet(object.get(), &param, 1), OK);
    EXPECT_EQ(znc::param_pointer<cJSON>(param), cJSON_GetObjectItem(object.get(), "body"));
}

TEST(ParamObjGet, UnknownTypesAndNamelessEntriesAreLeftAlone)
{
    const CJsonPtr object = parsed(R"({"a":5})");
    zncParam params[] = {of_type(9, "a"), znc::integer_param(nullptr, 8)};
    ASSERT_EQ(zncParamObjGet(object.get(), params, 2), OK);
    EXPECT_EQ(params[0].value, 1);
    EXPECT_EQ(params[1].value, 8);
}

TEST(ParamObjDestroy, NoTableOrNoEntriesFailsWithEINVAL)
{
    zncParam param = znc::integer_param("n", 1);
    errno = 0;
    EXPECT_EQ(zncParamObjDestroy(nullptr, 1), ERROR);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(zncParamObjDestroy(&param, 0), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

TEST(ParamObjDestroy, FreesOnlyTheVectors)
{
    const CJsonPtr object = parsed(R"({"a":["x"],"s":"v","o":{}})");
    zncParam params[] = {znc::strings_param("a", nullptr, 0), znc::string_param("s", nullptr),
                         znc::object_param("o", nullptr), znc::strings_param("none", nullptr, 0)};
    ASSERT_EQ(zncParamObjGet(object.get(), params, 4), OK);
    EXPECT_EQ(zncParamObjDestroy(params, 4), OK);
    EXPECT_EQ(printed(object.get()), R"({"a":["x"],"s":"v","o":{}})");
}

// ---------------------------------------------------------------- the rest

TEST(ParamValueGetByName, FindsTheFirstEntryWhoseNameBeginsWithTheText)
{
    zncParam params[] = {znc::integer_param("optic", 1), znc::integer_param("option", 2)};
    EXPECT_EQ(zncParamValueGetByName(params, 2, "opt"), 1);
    EXPECT_EQ(zncParamValueGetByName(params, 2, "opti"), 1);
    EXPECT_EQ(zncParamValueGetByName(params, 2, "optio"), 2);
    EXPECT_EQ(zncParamValueGetByName(params, 2, "option"), 2);
    EXPECT_EQ(zncParamValueGetByName(params, 2, ""), 1);
    EXPECT_EQ(zncParamValueGetByName(params, 1, "option"), 0);
    EXPECT_EQ(zncParamValueGetByName(params, 2, "options"), 0);
    EXPECT_EQ(zncParamValueGetByName(params, 2, "OPT"), 0);
}

TEST(ParamValueGetByName, NullArgumentsGive0)
{
    zncParam params[] = {znc::integer_param(nullptr, 5), znc::integer_param("n", 1)};
    EXPECT_EQ(zncParamValueGetByName(nullptr, 2, "n"), 0);
    EXPECT_EQ(zncParamValueGetByName(params, 2, nullptr), 0);
    EXPECT_EQ(zncParamValueGetByName(params, -1, "n"), 0);
    EXPECT_EQ(zncParamValueGetByName(params, 2, "n"), 1) << "a nameless entry is passed over";
}

TEST(ConfigToArray, HoldsTheStringsInOrder)
{
    char* strings[] = {text("a"), text(""), text("c"), nullptr};
    EXPECT_EQ(printed(CJsonPtr(zncConfigToArray(strings)).get()), R"(["a","","c"])");
    EXPECT_EQ(printed(CJsonPtr(zncConfigToArray(strings + 3)).get()), "[]");
}

TEST(ConfigToArray, WithoutMemoryIsNullOrLacksAnItem)
{
    char* strings[] = {text("a"), text("b"), nullptr};
    alloc_fault::arm(1);
    CJsonPtr array(zncConfigToArray(strings));
    alloc_fault::disarm();
    EXPECT_EQ(array, nullptr);
    alloc_fault::arm(2);
    array.reset(zncConfigToArray(strings));
    alloc_fault::disarm();
    EXPECT_EQ(printed(array.get()), R"(["b"])");
}

TEST(JsonCopy, CopiesDeeplyUnderTheNewName)
{
    CJsonPtr from = parsed(R"({"env":["a",{"b":[1]}]})");
    const CJsonPtr to = parsed("{}");
    zncJsonCopy(from.get(), text("ENV"), to.get(), text("Env"));
    from.reset();
    EXPECT_EQ(printed(to.get()), R"({"Env":["a",{"b":[1]}]})");
}

TEST(JsonCopy, MissingMemberIsAnEmptyString)
{
    const CJsonPtr from = parsed("{}");
    const CJsonPtr to = parsed("{}");
    zncJsonCopy(from.get(), text("annotations"), to.get(), text("Labels"));
    zncJsonCopy(nullptr, text("annotations"), to.get(), text("More"));
    EXPECT_EQ(printed(to.get()), R"({"Labels":"","More":""})");
}

TEST(JsonCopy, WithoutMemoryAddsNothing)
{
    const CJsonPtr from = parsed(R"({"a":["x"]})");
    const CJsonPtr to = parsed("{}");
    for (unsigned n = 1; n <= 4; n++) {
        alloc_fault::arm(n);
        zncJsonCopy(from.get(), text("a"), to.get(), text("A"));
        alloc_fault::disarm();
        EXPECT_EQ(printed(to.get()), "{}") << n;
    }
}

} // namespace
