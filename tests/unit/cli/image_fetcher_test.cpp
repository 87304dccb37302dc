// Tests what pull fetches for an operand, and how programs are run.
#include "cli/images/helper_program.hpp"
#include "cli/images/image_fetcher.hpp"
#include "cli/images/wanted_platform.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "base/owned.hpp"

using namespace zncctl;

namespace {

// Source, name and digest, separated by blanks; "refused".
std::string fetched(const std::string& operand)
{
    std::string problem;
    const auto what = fetch_source(operand, problem);
    if (!what) {
        EXPECT_EQ(problem, "it is not a valid name of an image") << operand;
        return "refused";
    }
    return what->source + " " + what->name + " " + what->digest;
}

const std::string kDigest = "sha256:" + std::string(64, 'a');

} // namespace

TEST(FetchSource, ANameIsAnImageOfARegistry)
{
    EXPECT_EQ(fetched("busybox"),
              "docker://docker.io/library/busybox:latest docker.io/library/busybox:latest ");
    EXPECT_EQ(fetched("docker://quay.io/a/b:c"), "docker://quay.io/a/b:c quay.io/a/b:c ");
    EXPECT_EQ(fetched("quay.io/a/b:c@" + kDigest),
              "docker://quay.io/a/b@" + kDigest + " quay.io/a/b@" + kDigest + " " + kDigest);
}

TEST(FetchSource, AnotherSourceOfSkopeoKeepsItsForm)
{
    EXPECT_EQ(fetched("oci:/srv/images/app:v1"), "oci:/srv/images/app:v1 localhost/app:v1 ");
    EXPECT_EQ(fetched("dir:some/where/"), "dir:some/where/ localhost/where:latest ");
    EXPECT_EQ(fetched("docker-daemon:app:v1"), "docker-daemon:app:v1 docker.io/library/app:v1 ");
    EXPECT_EQ(fetched("containers-storage:localhost/app"),
              "containers-storage:localhost/app localhost/app:latest ");
}

TEST(FetchSource, ADigestThatIsNotComparedIsDropped)
{
    EXPECT_EQ(fetched("dir:/srv/app@" + kDigest),
              "dir:/srv/app@" + kDigest + " localhost/app:latest ");
    EXPECT_EQ(fetched("oci:/srv/app@" + kDigest + ":v1"),
              "oci:/srv/app@" + kDigest + ":v1 localhost/app:latest ");
    EXPECT_EQ(fetched("containers-storage:quay.io/a/b@" + kDigest),
              "containers-storage:quay.io/a/b@" + kDigest + " quay.io/a/b:latest ");
}

TEST(FetchSource, InvalidNamesAreRefused)
{
    for (const char* operand : {"", "A", "-x", "../x", "docker://", "docker:///x", "oci:/", "oci:A",
                                "dir:", "http://x", "a\nb", "x --debug"})
        EXPECT_EQ(fetched(operand), "refused") << operand;
}

TEST(RunProgram, GivesStatusAndOutput)
{
    ProgramEnd end = run_program("sh", {"-c", "echo out; exit 3"}, -1, Output::kKept);
    EXPECT_EQ(end.error, 0);
    EXPECT_EQ(end.status, 3);
    EXPECT_EQ(end.output, "out\n");
    end = run_program("sh", {"-c", "kill -9 $$"}, -1, Output::kDiscarded);
    EXPECT_EQ(end.status, 128 + 9);
}

TEST(RunProgram, SaysWhyAProgramWasNotStarted)
{
    EXPECT_EQ(run_program("/no/such/program", {}, -1, Output::kDiscarded).error, ENOENT);
    EXPECT_EQ(run_program("no-such-program", {}, -1, Output::kKept).error, ENOENT);
    EXPECT_EQ(run_program("/etc/passwd", {}, -1, Output::kDiscarded).error, EACCES);
}

TEST(RunProgram, PassesTheGivenInputOrNone)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const znc::UniqueFd reader(ends[0]);
    znc::UniqueFd writer(ends[1]);
    ASSERT_EQ(::write(writer.get(), "given", 5), 5);
    writer.reset();
    EXPECT_EQ(run_program("cat", {}, reader.get(), Output::kKept).output, "given");
    EXPECT_EQ(run_program("cat", {}, -1, Output::kKept).output, "");
}

TEST(RunProgram, LimitsTheOutputThatItKeeps)
{
    const ProgramEnd end = run_program("head", {"-c", "20000000", "/dev/zero"}, -1, Output::kKept);
    EXPECT_LT(end.output.size(), std::size_t{17} << 20U);
    EXPECT_TRUE(end.too_much);
    EXPECT_NE(end.status, 0);
    EXPECT_FALSE(run_program("echo", {}, -1, Output::kKept).too_much);
}

TEST(SkopeoMessage, IsTheLastFatalLineWithoutItsQuoting)
{
    EXPECT_EQ(skopeo_message("time=\"now\" level=warning msg=\"first\"\n"
                             "time=\"now\" level=fatal msg=\"initializing source docker://a/b:c: "
                             "Get \\\"https://a/v2/\\\": refused\"\n"),
              "Get \"https://a/v2/\": refused");
    EXPECT_EQ(skopeo_message("level=fatal msg=\"initializing source without an end"),
              "initializing source without an end");
    EXPECT_EQ(skopeo_message("level=fatal msg=\"no end\\"), "no end\\");
    EXPECT_EQ(skopeo_message("one\npanic: two\n\n"), "panic: two");
    EXPECT_EQ(skopeo_message(""), "");
    EXPECT_EQ(skopeo_message("\n"), "");
}

TEST(SkopeoMessage, HasAHintForCommonReasons)
{
    EXPECT_STREQ(fetch_hint("dial tcp 127.0.0.1:5: connect: connection refused"),
                 "the registry does not answer: check its name and the network");
    EXPECT_STREQ(fetch_hint("http: server gave HTTP response to HTTPS client"),
                 "--tls-verify=false accepts registries without TLS");
    EXPECT_STREQ(fetch_hint("something else"), "");
}

TEST(FetchOptions, AreThoseOfThePlatformAndTheRegistry)
{
    Arguments args;
    args.add_option("platform", "linux/arm/v7");
    args.add_option("tls-verify", "false");
    EXPECT_EQ(fetch_options(args),
              (std::vector<std::string>{"--override-os=linux", "--override-arch=arm",
                                        "--override-variant=v7", "--src-tls-verify=false"}));
    EXPECT_EQ(fetch_options(Arguments()).front(), "--override-os=linux");
    args.add_option("arch", "arm64");
    EXPECT_STREQ(platform_problem(args), "--platform cannot be combined with --os and --arch");
}
