// Tests of the progress callback of an unpack: what it receives, and that it changes nothing else.
#include "layout_builder.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "zncontainer.h"

namespace {

struct Heard {
    std::string layer;
    std::uint32_t index;
    std::uint32_t count;
    std::uint64_t done;
    std::uint64_t total;
};

void hear(const ZNC_PROGRESS* progress, void* context)
{
    static_cast<std::vector<Heard>*>(context)->push_back(
        {progress->layer, progress->index, progress->count, progress->done, progress->total});
    errno = EILSEQ; // must not affect the error number of the unpack
}

class Progress : public testing::Test {
  protected:
    Progress()
    {
        layout::Image image;
        image.layers = {layout::tar({{"small", "content"}}),
                        layout::tar({{"large", std::string(3'000'000, 'x')}})};
        layout_.add(image);
        // /overlay of the sandbox. Without it layers are extracted into the bundle in the order of
        // the image.
        ::rmdir("/overlay");
        setenv("ZNC_BASE", (dir_ / "base").c_str(), 1);
    }
    ~Progress() override
    {
        zncUnpackProgressSet(nullptr, nullptr);
        unsetenv("ZNC_BASE");
    }

    STATUS unpack(const std::string& bundle)
    {
        return zncUnpack((dir_ / bundle).c_str(), layout_.c_str(), nullptr, 0, nullptr);
    }

    layout::TempDir dir_;
    layout::Layout layout_{dir_ / "layout"};
    std::vector<Heard> heard_;
};

} // namespace

TEST_F(Progress, EachLayerBeginsGrowsAndIsComplete)
{
    zncUnpackProgressSet(&hear, &heard_);
    ASSERT_EQ(unpack("bundle"), OK);
    ASSERT_GE(heard_.size(), 5U);
    std::vector<std::uint64_t> ends(2);
    for (std::size_t i = 0; i < heard_.size(); i++) {
        const Heard& now = heard_[i];
        EXPECT_EQ(now.count, 2U);
        EXPECT_EQ(now.layer.size(), 64U);
        EXPECT_LE(now.done, now.total);
        const bool first = i == 0 || heard_[i - 1].index != now.index;
        EXPECT_EQ(now.done == 0, first);
        if (!first) {
            EXPECT_GT(now.done, heard_[i - 1].done);
        }
        ends.at(now.index) = now.total - now.done;
    }
    EXPECT_EQ(ends, (std::vector<std::uint64_t>{0, 0}));
}

// Also for a layer that another thread extracts while its digest is computed.
TEST_F(Progress, MembersNotExtractedAsSpecifiedAreCounted)
{
    const auto count = [this](const std::string& bundle, const std::vector<std::string>& layers) {
        layout::Layout layout(dir_ / bundle + "-layout");
        layout::Image image;
        image.layers = layers;
        layout.add(image);
        std::uint64_t last = 99;
        zncUnpackProgressSet(
            [](const ZNC_PROGRESS* progress, void* context) {
                *static_cast<std::uint64_t*>(context) = progress->leftOut;
            },
            &last);
        EXPECT_EQ(zncUnpack((dir_ / bundle).c_str(), layout.c_str(), nullptr, 0, nullptr), OK);
        return last;
    };
    const std::string whole =
        layout::tar({layout::directory("d/"), {"d/f", "x"}, layout::symlink("l", "d/f")});
    const std::string lossy = layout::tar({{"f", "content"},
                                           {"hard", "", '1', "f"},
                                           {"fifo", "", '6'},
                                           {".wh.gone", ""},
                                           layout::directory("dev/"),
                                           {"dev/null", "", '3'}});
    EXPECT_EQ(count("whole", {whole}), 0U);
    EXPECT_EQ(count("lossy", {lossy}), 3U);
    EXPECT_EQ(count("both", {whole, lossy}), 3U);
    const std::string large = layout::tar(
        {{"f", std::string(2'000'000, 'x')}, {"hard", "", '1', "f"}, {"further", "", '1', "f"}});
    ASSERT_EQ(::mkdir("/overlay", 0755), 0); // from here on layers are stored and shared
    EXPECT_EQ(count("ahead", {large}), 2U);
    EXPECT_EQ(count("again", {large}), 0U); // the layer exists already
    ASSERT_EQ(::rmdir("/overlay"), 0);
}

TEST_F(Progress, NothingIsReportedWithoutACallback)
{
    ASSERT_EQ(unpack("one"), OK);
    zncUnpackProgressSet(&hear, &heard_);
    zncUnpackProgressSet(nullptr, nullptr);
    ASSERT_EQ(unpack("two"), OK);
    EXPECT_TRUE(heard_.empty());
}

TEST_F(Progress, BelongsToTheTaskThatSetIt)
{
    zncUnpackProgressSet(&hear, &heard_);
    STATUS status = ERROR;
    std::thread([&] { status = unpack("other"); }).join();
    EXPECT_EQ(status, OK);
    EXPECT_TRUE(heard_.empty());
}

TEST_F(Progress, ExtractingAnArchiveReportsNothing)
{
    zncUnpackProgressSet(&hear, &heard_);
    const std::string archive = dir_ / "archive";
    layout::write_file(archive, layout::tar({{"file", std::string(100'000, 'x')}}));
    layout::fs::create_directory(dir_ / "target");
    ASSERT_EQ(zncUtilUntar(archive.c_str(), (dir_ / "target").c_str()), OK);
    EXPECT_TRUE(heard_.empty());
}

TEST_F(Progress, ErrnoOfAFailureIsPreserved)
{
    zncUnpackProgressSet(&hear, &heard_);
    layout::Layout bad(dir_ / "bad");
    layout::Image image;
    image.layers = {layout::tar({{"../out", "content"}})};
    bad.add(image);
    EXPECT_EQ(zncUnpack((dir_ / "bundle").c_str(), bad.c_str(), nullptr, 0, nullptr), ERROR);
    EXPECT_EQ(errno, EPERM);
    ASSERT_FALSE(heard_.empty());
    EXPECT_LT(heard_.back().done, heard_.back().total);
}

TEST_F(Progress, ResultIsTheSameWithAndWithoutACallback)
{
    ASSERT_EQ(unpack("without"), OK);
    zncUnpackProgressSet(&hear, &heard_);
    ASSERT_EQ(unpack("with"), OK);
    for (const char* name : {"small", "large"})
        EXPECT_EQ(layout::read_file(dir_ / "with/rootfs/" + std::string(name)),
                  layout::read_file(dir_ / "without/rootfs/" + std::string(name)));
}
