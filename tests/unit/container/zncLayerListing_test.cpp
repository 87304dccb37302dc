// Tests of the records of directories: a later unpack uses them, and nothing depends on them.
#include "zncImageLib.hpp"
#include "zncLayerListing.hpp"

#include "fake_platform.hpp"
#include "layout_builder.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;
using layout::Image;
using layout::tar;
using namespace std::string_literals;

using Directories = std::vector<std::pair<std::string, unsigned>>;

class LayerListing : public ::testing::Test {
  protected:
    void SetUp() override
    {
        fake::reset();
        fs::create_directory("/overlay");
        ASSERT_EQ(::setenv("ZNC_BASE", base_.c_str(), 1), 0);
        Image image;
        image.layers = {bottom_, top_};
        layout_.add(image);
    }
    void TearDown() override { ::unsetenv("ZNC_BASE"); }

    // What an unpack into a new bundle says of the directories.
    Directories unpacked(ZNC_DIRECTORY_FUNC note = add)
    {
        fake::reset();
        fs::remove_all(dir_ / "bundle");
        Directories directories;
        EXPECT_EQ(zncUnpackDirs((dir_ / "bundle").c_str(), layout_.c_str(), nullptr, 0, nullptr,
                                note, &directories),
                  OK)
            << errno;
        return directories;
    }
    static void add(const char* path, std::uint32_t mode, void* context)
    {
        static_cast<Directories*>(context)->emplace_back(path, mode);
    }
    [[nodiscard]] fs::path record(const std::string& archive) const
    {
        return fs::path(base_) / "records" / (layout::sha256_hex(archive) + ".directories");
    }
    STATUS collect(unsigned option = 0)
    {
        return zncStoreCollect(nullptr, 0, option, nullptr, nullptr);
    }

    layout::TempDir dir_;
    layout::Layout layout_{dir_.path() / "img"};
    std::string base_ = dir_ / "base";
    const std::string bottom_ = tar({layout::directory("tmp/", 01777), {"tmp/low", "low"}});
    const std::string top_ = tar({{"high", "high"}});
    const Directories all_ = {{"/tmp", 01777}};
};

} // namespace

TEST_F(LayerListing, TheDirectoriesOfEachStoredLayerAreRecorded)
{
    EXPECT_EQ(unpacked(), all_);
    EXPECT_EQ(layout::read_file(record(bottom_)), "1\0001777/tmp\0\0"s);
    EXPECT_EQ(layout::read_file(record(top_)), "1\0\0"s); // one without directories, too
}

TEST_F(LayerListing, ALaterUnpackUsesTheRecordInsteadOfTheArchive)
{
    EXPECT_EQ(unpacked(), all_);
    layout::write_file(record(top_), "1\0000755/recorded\0\0"s);
    const Directories with_recorded = {{"/tmp", 01777}, {"/recorded", 0755}};
    EXPECT_EQ(unpacked(), with_recorded);
}

TEST_F(LayerListing, AMissingRecordIsMadeAgain)
{
    EXPECT_EQ(unpacked(), all_);
    fs::remove(record(bottom_));
    EXPECT_EQ(unpacked(), all_);
    EXPECT_EQ(layout::read_file(record(bottom_)), "1\0001777/tmp\0\0"s);
}

TEST_F(LayerListing, ADamagedRecordIsNotUsed)
{
    const std::string long_path(300, 'p');
    EXPECT_EQ(unpacked(), all_);
    for (const std::string& damaged : {""s, "\0"s, "1\0"s, "2\0000755/a\0\0"s, "0755/a\0\0"s,
                                       "1\000755\0\0"s, "1\0000758/a\0\0"s, "1\0000755\0\0"s,
                                       "1\0000755/a"s, "1\0000755/" + long_path + "\0\0"s}) {
        layout::write_file(record(bottom_), damaged);
        EXPECT_EQ(unpacked(), all_) << testing::PrintToString(damaged);
    }
    fs::remove(record(bottom_));
    fs::create_directory(record(bottom_));
    EXPECT_EQ(unpacked(), all_);
}

TEST_F(LayerListing, WithoutACallbackNothingIsRecorded)
{
    EXPECT_EQ(unpacked(nullptr), Directories());
    EXPECT_FALSE(fs::exists(record(bottom_)));
    EXPECT_FALSE(fs::exists(record(top_)));
}

TEST_F(LayerListing, ARecordIsRemovedWithItsLayer)
{
    EXPECT_EQ(unpacked(), all_);
    EXPECT_EQ(collect(), OK);
    EXPECT_TRUE(fs::exists(record(bottom_)));
    fs::remove_all(dir_ / "bundle");
    EXPECT_EQ(collect(ZNC_OPT_DRY_RUN), OK);
    EXPECT_TRUE(fs::exists(record(bottom_)));
    EXPECT_EQ(collect(), OK);
    EXPECT_FALSE(fs::exists(record(bottom_)));
    EXPECT_FALSE(fs::exists(record(top_)));
}

TEST_F(LayerListing, ARecordWithoutALayerIsRemoved)
{
    EXPECT_EQ(unpacked(), all_);
    layout::write_file(record("another layer"), "1\0\0"s);
    EXPECT_EQ(collect(), OK);
    EXPECT_FALSE(fs::exists(record("another layer")));
    EXPECT_TRUE(fs::exists(record(bottom_)));
}
