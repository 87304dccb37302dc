// Tests with hostile images that run all the work of the worker process.
#include "import/convert.hpp"
#include "layout_builder.hpp"
#include "zncimport_input.hpp"

using namespace zncimport;
using namespace import_input;

namespace {

Outcome converted(const std::string& path, const Options& options)
{
    const OpenedSource opened = open_source(split_source_name(path));
    Spool spool;
    return convert(options, opened, spool, {});
}

std::string tag_from(const std::string& name)
{
    const test_tree::TempDir dir;
    const std::string tar = layout::tar({{"file", "x"}});
    const std::string config =
        R"({"architecture":"amd64","os":"linux","rootfs":{"diff_ids":[")" + sha256(tar) + "\"]}}";
    layout::write_file(
        dir / "l", layout::tar({{"layer.tar", tar},
                                {"config.json", config},
                                {"manifest.json", R"([{"Config":"config.json",)"
                                                  R"("RepoTags":[")" +
                                                      name + R"("],"Layers":["layer.tar"]}])"}}));
    return converted(dir / "l", {}).tag;
}

} // namespace

TEST(Hostile, OnlyAValidTagIsAccepted)
{
    EXPECT_EQ(tag_from("app:1.0-a_b"), "1.0-a_b");
    EXPECT_EQ(tag_from("registry:5000/app:v1"), "v1");
    EXPECT_EQ(tag_from("registry:5000/app"), "");
    for (const char* bad : {"app:\\u001b[31mred", "app:a b", "app:", "app:1\\n2", "app:$(x)"})
        EXPECT_EQ(tag_from(bad), "") << bad;
    EXPECT_EQ(tag_from("app@sha256:" + std::string(64, 'a')), "");
    EXPECT_EQ(tag_from("app:" + std::string(129, 'a')), "");
}

// A report with a line for each of a million files is not sent between the processes unless it was
// requested.
TEST(Hostile, TheReportIsWrittenOnlyOnRequest)
{
    const test_tree::TempDir dir;
    shell(dir, "echo x >f; tar --owner=7 --group=7 -cf t f");
    Options options;
    const Outcome without = converted(dir / "t", options);
    EXPECT_EQ(without.losses, 1U);
    EXPECT_TRUE(has(without.summary, "1 owner"));
    EXPECT_EQ(without.report, "");
    options.report = "somewhere";
    const Outcome with = converted(dir / "t", options);
    EXPECT_TRUE(has(with.report, "\"owner\"")) << with.report;
    EXPECT_EQ(with.layers.at(0).digest, without.layers.at(0).digest);
}

// Many ".." in a deep directory: each must cost one lookup, not one for each parent directory.
TEST(Hostile, LongTargetsThatGoUpAndDownLeadWhereTheySay)
{
    const test_tree::TempDir dir;
    shell(dir, "d=a/b/c/d/e/f; mkdir -p $d; for i in $(seq 100); do t=$t../f/; done;"
               "ln -s ${t}x $d/down; ln -s ${t}../x $d/up; ln -s ${t}none/../../../../y $d/out;"
               "tar --format=gnu --owner=0 --group=0 -cf t a");
    Options options;
    options.report = "somewhere";
    const std::string report = converted(dir / "t", options).report;
    EXPECT_TRUE(has(report, "../f/x, is x\"")) << report;
    EXPECT_TRUE(has(report, "../f/../x, is ../x\"")) << report;
    EXPECT_TRUE(has(report, "../../y, is none/../../../../y\"")) << report;
}

TEST(Hostile, FilledHolesAreReported)
{
    const test_tree::TempDir dir;
    shell(dir, "truncate -s 1M f; echo x >>f; tar --owner=0 --group=0 -Scf t f");
    const Outcome outcome = converted(dir / "t", {});
    EXPECT_EQ(outcome.losses, 0U);
    EXPECT_TRUE(has(outcome.summary, "1 sparse file filled")) << outcome.summary;
}
