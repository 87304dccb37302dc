// Tests of the result that the worker process sends to its parent.
#include "import/outcome.hpp"

#include <gtest/gtest.h>

using namespace zncimport;

namespace {

const std::string kDigest = "sha256:" + std::string(64, 'a');

Outcome some_outcome()
{
    Outcome outcome;
    outcome.layers = {{kDigest, "sha256:" + std::string(64, 'b'), std::uint64_t{1} << 40U},
                      {kDigest, kDigest, 0}};
    outcome.config = "{\"a\": \"\\n\"}";
    outcome.manifest = "{}";
    outcome.tag = "1.0";
    outcome.os = "linux";
    outcome.arch = "arm";
    outcome.variant = "v7";
    outcome.losses = 3;
    outcome.summary = "lost: 3 devices";
    outcome.report = "[]";
    return outcome;
}

std::string problem(const std::string& text)
{
    try {
        static_cast<void>(read_outcome(text));
        return "";
    } catch (const Failure& failure) {
        return failure.what();
    }
}

constexpr const char* kNoAnswer = "the process reading the image returned an invalid result";

} // namespace

TEST(Outcome, IsReadAsItWasWritten)
{
    const Outcome outcome = read_outcome(write_outcome(some_outcome()));
    ASSERT_EQ(outcome.layers.size(), 2U);
    EXPECT_EQ(outcome.layers[0].digest, kDigest);
    EXPECT_EQ(outcome.layers[0].diff_id, "sha256:" + std::string(64, 'b'));
    EXPECT_EQ(outcome.layers[0].size, std::uint64_t{1} << 40U);
    EXPECT_EQ(outcome.config, some_outcome().config);
    EXPECT_EQ(outcome.manifest, "{}");
    EXPECT_EQ(outcome.tag, "1.0");
    EXPECT_EQ(outcome.os + outcome.arch + outcome.variant, "linuxarmv7");
    EXPECT_EQ(outcome.losses, 3U);
    EXPECT_EQ(outcome.summary, "lost: 3 devices");
    EXPECT_EQ(outcome.report, "[]");
}

TEST(Outcome, AFailureArrivesWithItsObjectAndStatus)
{
    try {
        static_cast<void>(read_outcome(
            write_failure(Failure("image.tar", "holds several images", zncctl::kExitNotFound))));
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_STREQ(failure.what(), "holds several images");
        EXPECT_EQ(failure.object(), "image.tar");
        EXPECT_EQ(failure.status(), zncctl::kExitNotFound);
    }
}

TEST(Outcome, InvalidDocumentsAreRefused)
{
    EXPECT_EQ(problem(""), kNoAnswer);
    EXPECT_EQ(problem("{"), kNoAnswer);
    EXPECT_EQ(problem("[]"), kNoAnswer);
    EXPECT_EQ(problem("{}"), kNoAnswer);
    const std::string good = write_outcome(some_outcome());
    EXPECT_EQ(problem(good), "");
    for (std::size_t length = 0; length < good.size(); length++)
        EXPECT_EQ(problem(good.substr(0, length)), kNoAnswer) << length;
}

// Digests are used as file names.
TEST(Outcome, InvalidDigestsAreRefused)
{
    for (const std::string& digest :
         {std::string(), std::string("sha256:"), "sha256:" + std::string(63, 'a'),
          "sha256:" + std::string(65, 'a'), "sha256:" + std::string(64, 'A'),
          "sha256:../" + std::string(61, 'a'), "sha512:" + std::string(64, 'a')}) {
        Outcome outcome = some_outcome();
        outcome.layers[1].digest = digest;
        EXPECT_EQ(problem(write_outcome(outcome)), kNoAnswer) << digest;
        outcome = some_outcome();
        outcome.layers[0].diff_id = digest;
        EXPECT_EQ(problem(write_outcome(outcome)), kNoAnswer) << digest;
    }
}

TEST(Outcome, AnImageWithoutLayersOrDocumentsIsRefused)
{
    Outcome outcome = some_outcome();
    outcome.layers.clear();
    EXPECT_EQ(problem(write_outcome(outcome)), kNoAnswer);
    outcome = some_outcome();
    outcome.config.clear();
    EXPECT_EQ(problem(write_outcome(outcome)), kNoAnswer);
    outcome = some_outcome();
    outcome.manifest.clear();
    EXPECT_EQ(problem(write_outcome(outcome)), kNoAnswer);
}
