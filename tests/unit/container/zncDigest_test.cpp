// Tests of digests of files against known values from the standards.
#include "zncDigest.hpp"

#include "layout_builder.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cerrno>

#include <sys/stat.h>

namespace {

using layout::TempDir;
using layout::write_file;

constexpr char kAbc256[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr char kAbc512[] = "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                           "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f";
constexpr char kEmpty256[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr char kMillion256[] = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";
constexpr char kMillion512[] = "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973eb"
                               "de0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4eadb217ad8cc09b";

std::string upper(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return std::toupper(c); });
    return text;
}

class Digest : public ::testing::Test {
  protected:
    std::string file(std::string_view content)
    {
        const std::string path = dir_ / "file";
        write_file(path, content);
        return path;
    }
    TempDir dir_;
};

TEST_F(Digest, KnownValuesMatch)
{
    EXPECT_EQ(validateSha256(file("abc").c_str(), kAbc256), OK);
    EXPECT_EQ(validateSha512(file("abc").c_str(), kAbc512), OK);
    EXPECT_EQ(validateSha256(file("").c_str(), kEmpty256), OK);
}

TEST_F(Digest, FilesOfManyReadsMatch)
{
    const std::string path = file(std::string(1000000, 'a'));
    EXPECT_EQ(validateSha256(path.c_str(), kMillion256), OK);
    EXPECT_EQ(validateSha512(path.c_str(), kMillion512), OK);
}

TEST_F(Digest, SizesAroundTheReadLengthMatch)
{
    for (const std::size_t size : {1023U, 1024U, 1025U, 2048U}) {
        const std::string content(size, 'x');
        EXPECT_EQ(validateSha256(file(content).c_str(), layout::sha256_hex(content).c_str()), OK);
        EXPECT_EQ(validateSha512(file(content).c_str(), layout::sha512_hex(content).c_str()), OK);
    }
}

TEST_F(Digest, UpperCaseDigitsMatch)
{
    EXPECT_EQ(validateSha256(file("abc").c_str(), upper(kAbc256).c_str()), OK);
    EXPECT_EQ(validateSha512(file("abc").c_str(), upper(kAbc512).c_str()), OK);
}

TEST_F(Digest, OneDifferentByteIsAMismatch)
{
    EXPECT_EQ(validateSha256(file("abd").c_str(), kAbc256), ERROR);
    EXPECT_EQ(validateSha512(file("abd").c_str(), kAbc512), ERROR);
    std::string other = kAbc256;
    other[63] = 'e';
    EXPECT_EQ(validateSha256(file("abc").c_str(), other.c_str()), ERROR);
}

TEST_F(Digest, TextBehindTheDigitsIsNotLookedAt)
{
    EXPECT_EQ(validateSha256(file("abc").c_str(), (kAbc256 + std::string("extra")).c_str()), OK);
    EXPECT_EQ(validateSha512(file("abc").c_str(), (kAbc512 + std::string("extra")).c_str()), OK);
}

TEST_F(Digest, TooFewDigitsAreAMismatch)
{
    const std::string path = file("abc");
    EXPECT_EQ(validateSha256(path.c_str(), std::string(kAbc256).substr(0, 63).c_str()), ERROR);
    EXPECT_EQ(validateSha256(path.c_str(), ""), ERROR);
    EXPECT_EQ(validateSha512(path.c_str(), std::string(kAbc512).substr(0, 127).c_str()), ERROR);
    EXPECT_EQ(validateSha512(path.c_str(), kAbc256), ERROR);
}

TEST_F(Digest, AMissingFileIsAMismatch)
{
    EXPECT_EQ(validateSha256((dir_ / "absent").c_str(), kAbc256), ERROR);
}

TEST_F(Digest, AFileThatEndsBeforeItsSizeIsAMismatchAndEnds)
{
    // Files in /sys report a size of one page but contain less.
    const char* path = "/sys/kernel/mm/transparent_hugepage/enabled";
    struct stat st = {};
    if (::stat(path, &st) != 0)
        path = "/sys/devices/system/cpu/online";
    ASSERT_EQ(::stat(path, &st), 0);
    const std::string content = layout::read_file(path);
    ASSERT_LT(content.size(), static_cast<std::size_t>(st.st_size));
    EXPECT_EQ(validateSha256(path, layout::sha256_hex(content).c_str()), ERROR);
}

TEST_F(Digest, WhatIsNoRegularFileIsAMismatchAndDoesNotBlock)
{
    const std::string fifo = dir_ / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(validateSha256(fifo.c_str(), kEmpty256), ERROR);
    EXPECT_EQ(validateSha256(dir_.path().c_str(), kEmpty256), ERROR);
    EXPECT_EQ(validateSha256("/dev/null", kEmpty256), ERROR);
}

TEST(ChainDigest, TheFirstValueIsTheHashOfTheText)
{
    std::uint8_t chain[znc::kSha256Len] = {};
    ASSERT_TRUE(znc::chain_digest(chain, {}, "abc"));
    EXPECT_EQ(chain[0], 0xba);
    EXPECT_EQ(chain[31], 0xad);
}

TEST(ChainDigest, ALaterValueIsTheHashOfTheValueBeforeAndTheText)
{
    std::uint8_t chain[znc::kSha256Len] = {'a'};
    const std::string before(reinterpret_cast<const char*>(chain), sizeof chain);
    ASSERT_TRUE(znc::chain_digest(chain, before, "bc"));
    const std::string want = layout::sha256_hex(before + "bc");
    char first[3];
    std::snprintf(first, sizeof first, "%02x", chain[0]);
    EXPECT_EQ(want.substr(0, 2), first);
}

} // namespace
