#include "base/json.hpp"

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

namespace {

int error_of(std::string_view text)
{
    errno = 0;
    const znc::CJsonPtr tree = znc::parse_json(text);
    return tree ? 0 : errno;
}

TEST(ParseJson, WhiteSpaceMayFollowADocument)
{
    EXPECT_EQ(error_of("{\"a\":[1]} \t\r\n"), 0);
    EXPECT_EQ(error_of("7"), 0);
}

TEST(ParseJson, AnythingElseBehindADocumentIsAnError)
{
    EXPECT_EQ(error_of("{} {}"), EINVAL);
    EXPECT_EQ(error_of("{}x"), EINVAL);
    EXPECT_EQ(error_of(std::string_view("{}\0", 3)), EINVAL);
}

TEST(ParseJson, NoDocumentIsAnError)
{
    EXPECT_EQ(error_of(""), EINVAL);
    EXPECT_EQ(error_of({}), EINVAL);
    EXPECT_EQ(error_of("{"), EINVAL);
}

TEST(ParseJson, NothingBehindTheEndOfTheTextIsRead)
{
    const std::string text = "[12]34";
    const znc::CJsonPtr tree = znc::parse_json(std::string_view(text).substr(0, 4));
    ASSERT_TRUE(tree);
    EXPECT_EQ(cJSON_GetArraySize(tree.get()), 1);
    EXPECT_EQ(error_of(std::string_view(text).substr(0, 3)), EINVAL);
}

TEST(ParseJson, NestingBeyondTheLimitIsAnError)
{
    EXPECT_EQ(error_of(std::string(500, '[') + std::string(500, ']')), 0);
    EXPECT_EQ(error_of(std::string(2000, '[') + std::string(2000, ']')), EINVAL);
}

} // namespace
