// Digests whose provider fails: there is no value, never a wrong one.
#include "format/digest.hpp"

#include <gtest/gtest.h>

namespace {

enum class Fails { kNothing, kStarts, kUpdate, kFinish };
Fails fails = Fails::kNothing;
int updates_until_failure = 0;
int finished = 0;

bool update()
{
    return fails != Fails::kUpdate || updates_until_failure-- > 0;
}

bool finish(unsigned char* out, std::size_t len)
{
    finished++;
    std::fill_n(out, len, static_cast<unsigned char>(0xab));
    return fails != Fails::kFinish;
}

} // namespace

void znc_sha256_init(znc::ShaContext*) {}
bool znc_sha256_starts(znc::ShaContext*)
{
    return fails != Fails::kStarts;
}
bool znc_sha256_update(znc::ShaContext*, const unsigned char*, std::size_t)
{
    return update();
}
bool znc_sha256_finish(znc::ShaContext*, unsigned char* out)
{
    return finish(out, znc::kSha256Len);
}
void znc_sha512_init(znc::ShaContext*) {}
bool znc_sha512_starts(znc::ShaContext*)
{
    return fails != Fails::kStarts;
}
bool znc_sha512_update(znc::ShaContext*, const unsigned char*, std::size_t)
{
    return update();
}
bool znc_sha512_finish(znc::ShaContext*, unsigned char* out)
{
    return finish(out, znc::kSha512Len);
}

namespace {

class FailingProvider : public ::testing::TestWithParam<znc::DigestAlgorithm> {
  protected:
    void SetUp() override
    {
        fails = Fails::kNothing;
        finished = 0;
    }
    static void expect_no_value(znc::Digest digest)
    {
        std::array<unsigned char, znc::Digest::kMax> out = {};
        const auto untouched = out;
        znc::Digest other = digest;
        EXPECT_FALSE(digest.finish(out.data()));
        EXPECT_EQ(out, untouched);
        EXPECT_FALSE(other.text());
        EXPECT_EQ(other.text().view(), "");
    }
};

TEST_P(FailingProvider, WithoutAFailureThereIsAValue)
{
    znc::Digest digest(GetParam());
    digest.add("abc", 3);
    EXPECT_TRUE(digest.text());
    EXPECT_EQ(finished, 1);
}

TEST_P(FailingProvider, OneThatDoesNotStartHasNoValue)
{
    fails = Fails::kStarts;
    znc::Digest digest(GetParam());
    digest.add("abc", 3);
    expect_no_value(digest);
    EXPECT_EQ(finished, 0);
}

TEST_P(FailingProvider, OneThatMissesAPieceHasNoValue)
{
    fails = Fails::kUpdate;
    updates_until_failure = 1;
    znc::Digest digest(GetParam());
    digest.add("abc", 3);
    digest.add("def", 3);
    fails = Fails::kNothing; // it recovers, which is too late
    digest.add("ghi", 3);
    expect_no_value(digest);
    EXPECT_EQ(finished, 0);
}

TEST_P(FailingProvider, OneThatDoesNotFinishHasNoValue)
{
    fails = Fails::kFinish;
    znc::Digest digest(GetParam());
    digest.add("abc", 3);
    expect_no_value(digest);
    EXPECT_EQ(finished, 2); // the digest and its copy
}

INSTANTIATE_TEST_SUITE_P(Both, FailingProvider,
                         ::testing::Values(znc::DigestAlgorithm::kSha256,
                                           znc::DigestAlgorithm::kSha512));

} // namespace
