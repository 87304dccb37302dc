// Tests of the gzip file as a source for archive readers.
#include "zncGzLib.hpp"

#include "alloc_fault.hpp"
#include "tarforge.hpp"
#include "test_tree.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

using Source = std::unique_ptr<GZ_ARCHIVE, znc::GzArchiveDeleter>;

class GzSource : public testing::Test {
  protected:
    const char* write(const std::string& bytes)
    {
        test_tree::write_file(file_, bytes);
        return file_.c_str();
    }

    test_tree::TempDir dir_;
    std::string file_ = dir_ / "file";
};

} // namespace

TEST_F(GzSource, PlainTarGivesNoSource)
{
    const std::string tar = tarforge::Archive().file("a", "content").end().bytes();
    EXPECT_EQ(zncGzArchiveCreate(write(tar)), nullptr);
}

TEST_F(GzSource, NullOrMissingFileGivesNoSource)
{
    EXPECT_EQ(zncGzArchiveCreate(nullptr), nullptr);
    EXPECT_EQ(zncGzArchiveCreate((dir_ / "missing").c_str()), nullptr);
}

TEST_F(GzSource, EveryFailedAllocationGivesNoSource)
{
    const char* const path = write(tarforge::gzip("content"));
    for (unsigned nth = 1; nth <= 4; ++nth) {
        alloc_fault::arm(nth);
        GZ_ARCHIVE* const archive = zncGzArchiveCreate(path);
        EXPECT_EQ(alloc_fault::disarm(), nth);
        EXPECT_EQ(archive, nullptr);
    }
}

TEST_F(GzSource, ReadsThroughTheSourceRecordThatItBeginsWith)
{
    const Source archive(zncGzArchiveCreate(write(tarforge::gzip("0123456789"))));
    ASSERT_NE(archive, nullptr);
    auto* const tc = reinterpret_cast<TAR_COMPRESS*>(archive.get());
    EXPECT_EQ(tc->read, zncGzRead);
    char buf[16] = {};
    EXPECT_EQ(tc->read(tc, buf, 8), 8);
    EXPECT_STREQ(buf, "01234567");
    EXPECT_EQ(tc->read(tc, buf, sizeof buf), 2);
    EXPECT_EQ(tc->read(tc, buf, sizeof buf), 0);
}

TEST_F(GzSource, ReadWithBadArgumentsLooksLikeTheEnd)
{
    const Source archive(zncGzArchiveCreate(write(tarforge::gzip("x"))));
    ASSERT_NE(archive, nullptr);
    char buf[1];
    EXPECT_EQ(zncGzRead(nullptr, buf, 1), 0);
    EXPECT_EQ(zncGzRead(archive.get(), nullptr, 1), 0);
    EXPECT_EQ(zncGzRead(archive.get(), buf, 0), 0);
    EXPECT_EQ(zncGzRead(archive.get(), buf, 1), 1);
}

TEST_F(GzSource, ReadNarrowsTheCountTo32Bits)
{
    const Source archive(zncGzArchiveCreate(write(tarforge::gzip("0123456789"))));
    ASSERT_NE(archive, nullptr);
    char buf[16] = {};
    EXPECT_EQ(zncGzRead(archive.get(), buf, (std::size_t{1} << 32) + 3), 3);
    EXPECT_EQ(zncGzRead(archive.get(), buf, std::size_t{1} << 32), 0);
}

TEST_F(GzSource, DeleteAcceptsNullAndASourceWithoutFile)
{
    zncGzArchiveDelete(nullptr);
    zncGzArchiveDelete(calloc(1, sizeof(GZ_ARCHIVE)));
}
