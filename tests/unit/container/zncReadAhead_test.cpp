// Archives that another task reads ahead: the same bytes, end and errors.
#include "zncReadAhead.hpp"

#include "one_processor.hpp"
#include "zncWorkAhead.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

// Gives `bytes`, at most `most` at a time, and then `end`.
struct Source {
    std::string bytes;
    std::size_t most = SIZE_MAX;
    ssize_t end = 0;
    int error = 0;
    std::size_t at = 0;
    int reads = 0;

    static ssize_t read(void* self, void* buffer, std::size_t count)
    {
        auto& source = *static_cast<Source*>(self);
        source.reads++;
        const std::size_t part = std::min({count, source.most, source.bytes.size() - source.at});
        if (part == 0) {
            errno = source.error;
            return source.end;
        }
        std::memcpy(buffer, source.bytes.data() + source.at, part);
        source.at += part;
        return static_cast<ssize_t>(part);
    }
};

std::string numbered(std::size_t size)
{
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; i++)
        bytes[i] = static_cast<char>(i ^ i >> 8 ^ i >> 16);
    return bytes;
}

class Ahead : public ::testing::Test {
  protected:
    void SetUp() override
    {
        if (znc::WorkAhead::processors_beside(1) == 0)
            GTEST_SKIP() << "one processor: nothing is read ahead";
    }
    ssize_t read(void* buffer, std::size_t count)
    {
        return ahead_.source()->read(ahead_.source(), buffer, count);
    }
    std::string read_all(std::size_t piece)
    {
        std::string all;
        std::string part(piece, '\0');
        ssize_t n;
        while ((n = read(part.data(), piece)) > 0)
            all.append(part, 0, static_cast<std::size_t>(n));
        return n == 0 ? all : all + "(error)";
    }
    Source source_; // outlives the task
    znc::ReadAhead ahead_;
};

TEST_F(Ahead, BytesAreTheSameInPiecesOfAnySize)
{
    for (const std::size_t piece : {1000U, 102'400U, 262'144U, 300'000U, 5'000'000U})
        for (const std::size_t most : {7777U, 262'144U, 1'000'000U}) {
            source_ = {numbered(3'000'001), most};
            ASSERT_TRUE(ahead_.start(Source::read, &source_));
            EXPECT_EQ(read_all(piece), source_.bytes) << piece << " of " << most;
            ahead_.stop();
        }
}

TEST_F(Ahead, APieceIsWholeUpToTheEnd)
{
    source_ = {numbered(1'000'000), 5000};
    ASSERT_TRUE(ahead_.start(Source::read, &source_));
    std::string part(600'000, '\0');
    EXPECT_EQ(read(part.data(), part.size()), 600'000);
    EXPECT_EQ(read(part.data(), part.size()), 400'000);
    EXPECT_EQ(read(part.data(), part.size()), 0);
    EXPECT_EQ(read(part.data(), part.size()), 0);
}

TEST_F(Ahead, AnErrorComesBehindTheBytesBeforeItWithItsNumber)
{
    source_ = {numbered(100), SIZE_MAX, -1, EIO};
    ASSERT_TRUE(ahead_.start(Source::read, &source_));
    char part[200];
    EXPECT_EQ(read(part, sizeof part), 100);
    errno = 0;
    EXPECT_EQ(read(part, sizeof part), -1);
    EXPECT_EQ(errno, EIO);
    errno = 0;
    EXPECT_EQ(read(part, sizeof part), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(source_.reads, 2); // it is not tried again
}

TEST_F(Ahead, AnEmptySourceEndsAtOnce)
{
    ASSERT_TRUE(ahead_.start(Source::read, &source_));
    char byte;
    EXPECT_EQ(read(&byte, 1), 0);
}

TEST_F(Ahead, AStoppedThreadEndsWithoutReadingFurther)
{
    source_ = {numbered(50'000'000)};
    ASSERT_TRUE(ahead_.start(Source::read, &source_));
    char part[100];
    EXPECT_EQ(read(part, sizeof part), 100);
    errno = EXDEV;
    ahead_.stop();
    EXPECT_EQ(errno, EXDEV);
    EXPECT_LT(source_.at, source_.bytes.size());
    const int reads = source_.reads;
    ahead_.stop();
    EXPECT_EQ(source_.reads, reads);
}

TEST(AheadAlone, OnOneProcessorNothingStarts)
{
    const OneProcessor one;
    Source source;
    znc::ReadAhead ahead;
    errno = EXDEV;
    const bool started = ahead.start(Source::read, &source);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_FALSE(started);
    ahead.stop();
    EXPECT_EQ(source.reads, 0);
}

} // namespace
