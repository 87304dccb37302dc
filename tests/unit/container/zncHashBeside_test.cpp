// Digests that another thread computes: the same as those of the thread that reads.
#include "zncHashBeside.hpp"

#include "one_processor.hpp"
#include "zncWorkAhead.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

// SHA-256 of nothing and of a million times "a".
constexpr char kEmpty[] = "sha256:e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr char kMillion[] =
    "sha256:cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";

class Beside : public ::testing::Test {
  protected:
    void SetUp() override
    {
        if (znc::WorkAhead::processors_beside(1) == 0)
            GTEST_SKIP() << "one processor: no thread is started";
    }
    void add(std::size_t count, std::size_t most)
    {
        while (count > 0) {
            const std::size_t len = std::min(count, most);
            std::memset(beside_.piece(), 'a', len);
            beside_.add(len);
            count -= len;
        }
    }
    znc::RunningDigest digest_;
    znc::HashBeside beside_;
};

TEST_F(Beside, TheDigestIsTheSameForPiecesOfAnySize)
{
    for (const std::size_t most : {100U, 1000U, 65'535U, 65'536U}) {
        ASSERT_TRUE(digest_.start(kMillion));
        ASSERT_TRUE(beside_.start(digest_));
        add(1'000'000, most);
        beside_.finish();
        EXPECT_TRUE(digest_.matches()) << most;
    }
}

TEST_F(Beside, OneByteTooFewIsNoticed)
{
    ASSERT_TRUE(digest_.start(kMillion));
    ASSERT_TRUE(beside_.start(digest_));
    add(999'999, znc::HashBeside::kPieceLen);
    beside_.finish();
    EXPECT_FALSE(digest_.matches());
}

TEST_F(Beside, ItContinuesWhatWasHashedBefore)
{
    ASSERT_TRUE(digest_.start(kMillion));
    digest_.update(std::string(1000, 'a').data(), 1000);
    ASSERT_TRUE(beside_.start(digest_));
    add(900'000, 60'000);
    beside_.finish();
    digest_.update(std::string(99'000, 'a').data(), 99'000);
    EXPECT_TRUE(digest_.matches());
}

TEST_F(Beside, WithoutPiecesNothingIsHashed)
{
    ASSERT_TRUE(digest_.start(kEmpty));
    ASSERT_TRUE(beside_.start(digest_));
    errno = EXDEV;
    beside_.finish();
    EXPECT_EQ(errno, EXDEV);
    EXPECT_FALSE(beside_.is_running());
    beside_.finish();
    EXPECT_TRUE(digest_.matches());
}

TEST_F(Beside, TheLastPieceMayBeReadUntilTheNextIsAskedFor)
{
    ASSERT_TRUE(digest_.start(kEmpty));
    ASSERT_TRUE(beside_.start(digest_));
    for (int i = 0; i < 100; i++) {
        unsigned char* const piece = beside_.piece();
        std::memset(piece, i, znc::HashBeside::kPieceLen);
        beside_.add(znc::HashBeside::kPieceLen);
        EXPECT_EQ(piece[0], i);
        EXPECT_EQ(piece[znc::HashBeside::kPieceLen - 1], i);
    }
}

TEST_F(Beside, ASecondStartIsRefusedWhileItRuns)
{
    ASSERT_TRUE(digest_.start(kEmpty));
    ASSERT_TRUE(beside_.start(digest_));
    znc::RunningDigest other;
    EXPECT_FALSE(beside_.start(other));
    beside_.finish();
    EXPECT_TRUE(digest_.matches());
}

TEST(BesideAlone, OnOneProcessorNothingStarts)
{
    const OneProcessor one;
    znc::RunningDigest digest;
    znc::HashBeside beside;
    errno = EXDEV;
    const bool started = beside.start(digest);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_FALSE(started);
    EXPECT_FALSE(beside.is_running());
}

} // namespace
