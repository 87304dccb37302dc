#include "cJSON_Additions.h"

#include "alloc_fault.hpp"
#include "test_tree.hpp"
#include "zncOwned.hpp"

#include <cmath>
#include <csignal>
#include <limits>
#include <sys/resource.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

using test_tree::TempDir;
using znc::CJsonPtr;

namespace {

CJsonPtr load(const std::string& path)
{
    errno = 0;
    return CJsonPtr(cJSON_load_from_file(path.c_str()));
}

class JsonFile : public ::testing::Test {
  protected:
    CJsonPtr load_text(const std::string& text)
    {
        test_tree::write_file(path_, text);
        return load(path_);
    }

    TempDir dir_;
    std::string path_ = dir_ / "f.json";
};

// ---------------------------------------------------------------- reading

TEST_F(JsonFile, ADocumentIsReadWhole)
{
    const CJsonPtr tree = load_text("{\"a\": [1, 2, {\"b\": \"text\"}]} \r\n\t");
    ASSERT_NE(tree, nullptr);
    const cJSON* a = cJSON_GetObjectItemCaseSensitive(tree.get(), "a");
    EXPECT_EQ(cJSON_GetArraySize(a), 3);
}

TEST_F(JsonFile, ALongDocumentIsReadWhole)
{
    const std::string text(3'000'000, 'x');
    const CJsonPtr tree = load_text("\"" + text + "\"");
    ASSERT_NE(tree, nullptr);
    EXPECT_EQ(cJSON_GetStringValue(tree.get()), text);
}

TEST_F(JsonFile, WhatIsNotOneDocumentFailsWithEINVAL)
{
    for (const std::string text :
         {"", "   ", "{", "{}x", "{} {}", "{\"a\":}", "nul", "{}\x01", "[1,2"}) {
        EXPECT_EQ(load_text(text), nullptr) << text;
        EXPECT_EQ(errno, EINVAL) << text;
    }
    EXPECT_EQ(load_text(std::string("{}\0{}", 5)), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(load_text(std::string("{}\0", 3)), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(JsonFile, NestingWithoutEndFailsWithEINVAL)
{
    EXPECT_EQ(load_text(std::string(100'000, '[')), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(JsonFile, AMissingFileFailsWithENOENT)
{
    EXPECT_EQ(load(dir_ / "none"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(JsonFile, WhatIsNoRegularFileFailsWithEINVALWithoutBlocking)
{
    ASSERT_EQ(mkfifo((dir_ / "fifo").c_str(), 0600), 0);
    for (const std::string& path : {dir_ / "fifo", dir_.path(), std::string("/dev/zero")}) {
        EXPECT_EQ(load(path), nullptr) << path;
        EXPECT_EQ(errno, EINVAL) << path;
    }
    errno = 0;
    EXPECT_EQ(cJSON_load_from_file(nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(JsonFile, AFileAbove64MiBFailsWithEFBIG)
{
    test_tree::write_file(path_, "{}");
    ASSERT_EQ(truncate(path_.c_str(), 64 * 1024 * 1024 + 1), 0);
    EXPECT_EQ(load(path_), nullptr);
    EXPECT_EQ(errno, EFBIG);
}

TEST_F(JsonFile, EveryFailedAllocationWhileReadingFailsWithENOMEM)
{
    test_tree::write_file(path_, "{\"a\": [1, \"x\"]}");
    alloc_fault::arm(0);
    ASSERT_NE(load(path_), nullptr);
    const unsigned asked = alloc_fault::disarm();
    ASSERT_GT(asked, 4u);
    for (unsigned nth = 1; nth <= asked; ++nth) {
        alloc_fault::arm(nth);
        const CJsonPtr tree = load(path_);
        const int err = errno;
        alloc_fault::disarm();
        EXPECT_EQ(tree, nullptr) << nth;
        EXPECT_EQ(err, ENOMEM) << nth;
    }
}

// ---------------------------------------------------------------- writing

TEST_F(JsonFile, ATreeIsWrittenFormattedWithTheMode)
{
    const test_tree::Umask mask(0777);
    const CJsonPtr tree(cJSON_Parse("{\"a\":[1,true]}"));
    ASSERT_EQ(cJSON_dump_to_file(tree.get(), path_.c_str(), 0640), 0);
    EXPECT_EQ(test_tree::mode_of(path_), 0640u);
    EXPECT_EQ(test_tree::read_file(path_), "{\n\t\"a\":\t[1, true]\n}");
}

TEST_F(JsonFile, AnExistingFileOrLinkIsReplaced)
{
    test_tree::write_file(path_, std::string(1000, 'x'));
    test_tree::write_file(dir_ / "target", "precious");
    ASSERT_EQ(symlink("target", (dir_ / "link").c_str()), 0);
    const CJsonPtr tree(cJSON_Parse("[]"));
    EXPECT_EQ(cJSON_dump_to_file(tree.get(), path_.c_str(), 0644), 0);
    EXPECT_EQ(cJSON_dump_to_file(tree.get(), (dir_ / "link").c_str(), 0644), 0);
    EXPECT_EQ(test_tree::read_file(path_), "[]");
    EXPECT_EQ(test_tree::read_file(dir_ / "link"), "[]");
    EXPECT_EQ(test_tree::read_file(dir_ / "target"), "precious");
}

TEST_F(JsonFile, NoTreeOrPathFailsWithEINVALAndAMissingDirectoryWithENOENT)
{
    const CJsonPtr tree(cJSON_Parse("[]"));
    errno = 0;
    EXPECT_EQ(cJSON_dump_to_file(nullptr, path_.c_str(), 0644), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(cJSON_dump_to_file(tree.get(), nullptr, 0644), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(cJSON_dump_to_file(tree.get(), (dir_ / "no/f").c_str(), 0644), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(test_tree::exists(path_));
}

TEST_F(JsonFile, AFailedWriteLeavesNoPartialFile)
{
    const CJsonPtr tree(cJSON_CreateString(std::string(100'000, 'x').c_str()));
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit old = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    struct rlimit small = old;
    small.rlim_cur = 4096;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    errno = 0;
    const int result = cJSON_dump_to_file(tree.get(), path_.c_str(), 0644);
    const int err = errno;
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(err, EFBIG);
    EXPECT_FALSE(test_tree::exists(path_));
}

TEST_F(JsonFile, AFailedAllocationWhileWritingFailsWithENOMEMAndMakesNoFile)
{
    const CJsonPtr tree(cJSON_Parse("[]"));
    alloc_fault::arm(1);
    errno = 0;
    const int result = cJSON_dump_to_file(tree.get(), path_.c_str(), 0644);
    const int err = errno;
    alloc_fault::disarm();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(err, ENOMEM);
    EXPECT_FALSE(test_tree::exists(path_));
}

// ---------------------------------------------------------------- numbers

TEST(JsonInteger, NumbersAreCutAndSaturate)
{
    const auto as32 = [](double value) {
        return cJSON_integer_value(CJsonPtr(cJSON_CreateNumber(value)).get());
    };
    EXPECT_EQ(as32(0), 0);
    EXPECT_EQ(as32(-7.9), -7);
    EXPECT_EQ(as32(7.9), 7);
    EXPECT_EQ(as32(2147483647.0), INT32_MAX);
    EXPECT_EQ(as32(2147483648.0), INT32_MAX);
    EXPECT_EQ(as32(-2147483648.0), INT32_MIN);
    EXPECT_EQ(as32(-1e300), INT32_MIN);
    EXPECT_EQ(as32(std::numeric_limits<double>::infinity()), INT32_MAX);
    EXPECT_EQ(as32(std::nan("")), 0);
}

TEST(JsonInteger, SixtyFourBitsGoBeyondThirtyTwoAndSaturate)
{
    const auto as64 = [](double value) {
        return cJSON_integer64_value(CJsonPtr(cJSON_CreateNumber(value)).get());
    };
    EXPECT_EQ(as64(4294967296.0), INT64_C(4294967296));
    EXPECT_EQ(as64(9007199254740991.0), INT64_C(9007199254740991));
    EXPECT_EQ(as64(9223372036854775808.0), INT64_MAX);
    EXPECT_EQ(as64(-9223372036854775808.0), INT64_MIN);
    EXPECT_EQ(as64(1e300), INT64_MAX);
    EXPECT_EQ(as64(-1e300), INT64_MIN);
    EXPECT_EQ(as64(std::nan("")), 0);
}

TEST(JsonInteger, WhatIsNoNumberIsZero)
{
    const CJsonPtr tree(cJSON_Parse("[\"5\", true, null, [5], {}]"));
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, tree.get())
    {
        EXPECT_EQ(cJSON_integer_value(item), 0);
        EXPECT_EQ(cJSON_integer64_value(item), 0);
    }
    EXPECT_EQ(cJSON_integer_value(nullptr), 0);
    EXPECT_EQ(cJSON_integer64_value(nullptr), 0);
}

} // namespace
