// Tests of files that are hashed while they are read.
#include "zncBlob.hpp"

#include "layout_builder.hpp"

#include <gtest/gtest.h>

#include <cerrno>

#include <sys/stat.h>

namespace {

// The parameter: whether another thread hashes.
class Blob : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override { layout::write_file(path_, bytes_); }
    bool open()
    {
        const bool opened = blob_.open(path_.c_str(), digest_.c_str());
        if (GetParam())
            blob_.hash_beside();
        return opened;
    }
    std::string read_all()
    {
        std::string all;
        char chunk[1000];
        ssize_t n;
        while ((n = blob_.read(chunk, sizeof chunk)) > 0)
            all.append(chunk, static_cast<std::size_t>(n));
        return n == 0 ? all : "(error)";
    }
    layout::TempDir dir_;
    std::string path_ = dir_ / "blob";
    std::string bytes_ = std::string(5000, 'x') + "tail";
    std::string digest_ = "sha256:" + layout::sha256_hex(bytes_);
    znc::BlobReader blob_;
};

TEST_P(Blob, WhatIsReadIsWhatIsVerified)
{
    ASSERT_TRUE(open());
    EXPECT_EQ(blob_.size(), bytes_.size());
    EXPECT_EQ(read_all(), bytes_);
    EXPECT_TRUE(blob_.verified());
}

TEST_P(Blob, WhatIsNotReadIsVerifiedToo)
{
    char one = 0;
    ASSERT_TRUE(open());
    EXPECT_EQ(blob_.read(&one, 1), 1);
    EXPECT_TRUE(blob_.verified());
}

TEST_P(Blob, BytesThatChangeBeforeTheyAreReadAreNoticed)
{
    ASSERT_TRUE(open());
    bytes_[4000] = 'y';
    layout::write_file(path_, bytes_);
    EXPECT_EQ(read_all(), bytes_);
    EXPECT_FALSE(blob_.verified());
}

TEST_P(Blob, BytesThatChangeAfterTheyWereReadDoNotMatter)
{
    ASSERT_TRUE(open());
    EXPECT_EQ(read_all(), bytes_);
    layout::write_file(path_, std::string(bytes_.size(), 'y'));
    EXPECT_TRUE(blob_.verified());
}

TEST_P(Blob, AFileThatBecomesShorterIsNotVerified)
{
    ASSERT_TRUE(open());
    ASSERT_EQ(::truncate(path_.c_str(), 100), 0);
    EXPECT_FALSE(blob_.verified());
}

TEST_P(Blob, AfterARestartAllOfItCountsOnce)
{
    ASSERT_TRUE(open());
    EXPECT_EQ(read_all(), bytes_);
    ASSERT_TRUE(blob_.restart());
    EXPECT_EQ(read_all(), bytes_);
    EXPECT_TRUE(blob_.verified());
}

TEST_P(Blob, TailReadAheadIsComparedWithTheFile)
{
    unsigned char tail[4];
    ASSERT_TRUE(open());
    ASSERT_TRUE(blob_.read_tail(tail, sizeof tail));
    EXPECT_EQ(std::string(tail, tail + 4), "tail");
    EXPECT_TRUE(blob_.verified());

    layout::write_file(path_, std::string(bytes_.size(), 'y'));
    ASSERT_TRUE(open());
    ASSERT_TRUE(blob_.read_tail(tail, sizeof tail));
    layout::write_file(path_, bytes_);
    EXPECT_EQ(read_all(), bytes_); // the digest alone would match
    EXPECT_FALSE(blob_.verified());
}

TEST_P(Blob, ALargeFileHasTheSameDigest)
{
    bytes_.assign(5'000'003, 'z');
    for (std::size_t i = 0; i < bytes_.size(); i += 7)
        bytes_[i] = static_cast<char>(i >> 5);
    layout::write_file(path_, bytes_);
    digest_ = "sha256:" + layout::sha256_hex(bytes_);
    ASSERT_TRUE(open());
    EXPECT_EQ(read_all(), bytes_);
    EXPECT_TRUE(blob_.verified());
    ASSERT_TRUE(blob_.restart());
    char start[3000];
    EXPECT_EQ(blob_.read(start, sizeof start), 3000);
    EXPECT_EQ(blob_.read(start, sizeof start), 3000);
    ASSERT_TRUE(blob_.restart());
    EXPECT_TRUE(blob_.verified());
    bytes_[4'000'000] ^= 1;
    layout::write_file(path_, bytes_);
    ASSERT_TRUE(blob_.restart());
    EXPECT_EQ(read_all(), bytes_);
    EXPECT_FALSE(blob_.verified());
}

// Two readers of the same bytes: an inflater takes them in place.
TEST_P(Blob, NextReturnsTheSameBytesAsRead)
{
    bytes_.assign(300'000, 'z');
    for (std::size_t i = 0; i < bytes_.size(); i += 3)
        bytes_[i] = static_cast<char>(i >> 7);
    layout::write_file(path_, bytes_);
    digest_ = "sha256:" + layout::sha256_hex(bytes_);
    ASSERT_TRUE(open());
    std::string all(1000, '\0');
    ASSERT_EQ(blob_.read(all.data(), all.size()), 1000);
    const unsigned char* piece = nullptr;
    ssize_t n;
    while ((n = blob_.next(&piece)) > 0) {
        all.append(piece, piece + n);
        char next[100];
        const ssize_t more = blob_.read(next, sizeof next);
        ASSERT_GE(more, 0);
        all.append(next, static_cast<std::size_t>(more));
    }
    EXPECT_EQ(n, 0);
    EXPECT_EQ(all, bytes_);
    EXPECT_TRUE(blob_.verified());
}

INSTANTIATE_TEST_SUITE_P(HashedByThisThread, Blob, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(HashedByAnother, Blob, ::testing::Values(true));

class OpenBlob : public Blob {};

TEST_P(OpenBlob, DigestsOfBothKindsInAnyCaseAreTaken)
{
    std::string upper = digest_;
    for (std::size_t i = 7; i < upper.size(); ++i)
        upper[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(upper[i])));
    EXPECT_TRUE(blob_.open(path_.c_str(), upper.c_str()) && blob_.verified());
    layout::write_file(path_, "abc");
    EXPECT_TRUE(blob_.open(path_.c_str(),
                           "sha512:ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                           "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f") &&
                blob_.verified());
}

TEST_P(OpenBlob, WhatIsNoDigestIsRefusedWithoutANumber)
{
    for (const char* digest : {"", "sha256", "sha256:", "sha256:12", "md5:0123", "sha256:../x"}) {
        errno = EIO;
        EXPECT_FALSE(blob_.open(path_.c_str(), digest)) << digest;
        EXPECT_EQ(errno, 0) << digest;
    }
    EXPECT_FALSE(blob_.open(path_.c_str(), nullptr));
}

TEST_P(OpenBlob, OtherFileTypesAreNotOpenedAndDoNotBlock)
{
    ASSERT_EQ(::mkfifo((dir_ / "pipe").c_str(), 0600), 0);
    EXPECT_FALSE(blob_.open((dir_ / "pipe").c_str(), digest_.c_str()));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(blob_.open((dir_ / "absent").c_str(), digest_.c_str()));
    EXPECT_EQ(errno, ENOENT);
}

INSTANTIATE_TEST_SUITE_P(Once, OpenBlob, ::testing::Values(false));

} // namespace
