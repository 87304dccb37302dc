// Tests of the gzip reader.
#include "gzlib.hpp"

#include "alloc_fault.hpp"
#include "descriptors.hpp"
#include "guarded.hpp"
#include "tarforge.hpp"
#include "test_tree.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <random>
#include <string>
#include <vector>

namespace {

using tarforge::Gzip;

// The nth call of read or lseek fails if this is not 0.
int failingRead = 0;
int failingSeek = 0;

int io_error()
{
    errno = EIO;
    return -1;
}

} // namespace

extern "C" {
ssize_t __real_read(int fd, void* buf, size_t n);
off_t __real_lseek(int fd, off_t at, int whence);
ssize_t __wrap_read(int fd, void* buf, size_t n);
off_t __wrap_lseek(int fd, off_t at, int whence);
}

ssize_t __wrap_read(int fd, void* buf, size_t n)
{
    return failingRead > 0 && --failingRead == 0 ? io_error() : __real_read(fd, buf, n);
}

off_t __wrap_lseek(int fd, off_t at, int whence)
{
    return failingSeek > 0 && --failingSeek == 0 ? io_error() : __real_lseek(fd, at, whence);
}

namespace {

class GzLib : public testing::Test {
  protected:
    const char* gz(const std::string& bytes)
    {
        file_ = dir_ / "file.gz";
        test_tree::write_file(file_, bytes);
        return file_.c_str();
    }
    test_tree::TempDir dir_;

  private:
    std::string file_;
};

std::string sample(std::size_t size)
{
    std::mt19937 random(7);
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = i % 3 == 0 ? static_cast<char>(random()) : static_cast<char>(i >> 8);
    return text;
}

// Reads to the end, `chunk` bytes at a time, into a buffer followed by an inaccessible page.
std::string read_all(gzFile file, unsigned int chunk)
{
    std::string all;
    const Guarded out(chunk);
    for (;;) {
        const int n = ugzread(file, out.data(), chunk);
        EXPECT_GE(n, 0);
        if (n <= 0)
            return all;
        all += out.text().substr(0, static_cast<std::size_t>(n));
    }
}

std::string read_whole(const char* path, unsigned int chunk = 4096)
{
    const gzFile file = ugzopen(path, "rb");
    EXPECT_NE(file, nullptr);
    const std::string all = read_all(file, chunk);
    ugzclose(file);
    return all;
}

} // namespace

TEST_F(GzLib, PlainTarFailsAtTheHeader)
{
    const std::string tar = tarforge::Archive().file("a", "content").end().bytes();
    EXPECT_EQ(ugzopen(gz(tar), "rb"), nullptr);
}

TEST_F(GzLib, FilesOf0To3BytesAreRefusedBeforeAnyBufferIsAllocated)
{
    for (std::size_t size = 0; size < 4; ++size) {
        const char* const path = gz(std::string("\x1f\x8b\x08").substr(0, size));
        alloc_fault::arm(0);
        const gzFile file = ugzopen(path, "rb");
        EXPECT_EQ(alloc_fault::disarm(), 1U) << size; // the record
        EXPECT_EQ(file, nullptr) << size;
    }
}

TEST_F(GzLib, FileOf4BytesIsNoHeader)
{
    EXPECT_EQ(ugzopen(gz("\x1f\x8b\x08\x01"), "rb"), nullptr);
}

TEST_F(GzLib, RequestBeyondTheEndDeliversTheRestAndTheNextOneNothing)
{
    const gzFile file = ugzopen(gz(tarforge::gzip("0123456789")), "rb");
    ASSERT_NE(file, nullptr);
    char buf[100] = {};
    EXPECT_EQ(ugzread(file, buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "0123");
    EXPECT_EQ(ugzread(file, buf, sizeof buf), 6);
    EXPECT_EQ(std::string(buf, 6), "456789");
    EXPECT_EQ(ugzread(file, buf, sizeof buf), 0);
    EXPECT_EQ(ugzread(file, buf, 1), 0);
    EXPECT_EQ(ugzclose(file), 0);
}

TEST_F(GzLib, StreamOf4GiBAndMoreDeliversItsLengthModulo4GiB)
{
    const std::string last = "the end of the stream";
    const std::string mebibyte = tarforge::deflate_part(std::string(1 << 20, '\0'));
    Gzip options;
    options.body = "";
    for (int i = 0; i < 4096; ++i)
        *options.body += mebibyte;
    *options.body += tarforge::deflate(last);
    options.size = static_cast<std::uint32_t>(last.size());
    EXPECT_EQ(read_whole(gz(tarforge::gzip("", options))), std::string(last.size(), '\0'));
}

TEST_F(GzLib, CorruptDataStillDeliversTheTrailersLength)
{
    const std::string plain = sample(100000);
    std::string packed = tarforge::gzip(plain);
    for (std::size_t at = 20000; at < 20100; ++at)
        packed[at] = '\xff';
    const std::string got = read_whole(gz(packed));
    EXPECT_EQ(got.size(), plain.size());
    EXPECT_NE(got, plain);
    EXPECT_EQ(got.substr(0, 10000), plain.substr(0, 10000));
}

TEST_F(GzLib, BytesThatTheInflaterDidNotProduceAreNotOldMemory)
{
    Gzip options;
    options.size = 1000;
    EXPECT_EQ(read_whole(gz(tarforge::gzip("ten bytes.", options))),
              std::string("ten bytes.") + std::string(990, '\xff'));
}

TEST_F(GzLib, WrongChecksumIsNotReported)
{
    Gzip options;
    options.crc = 1;
    EXPECT_EQ(read_whole(gz(tarforge::gzip(sample(9000), options))), sample(9000));
}

TEST_F(GzLib, TrailerLengthBelowTheDataCutsIt)
{
    Gzip options;
    options.size = 77;
    EXPECT_EQ(read_whole(gz(tarforge::gzip(sample(9000), options))), sample(9000).substr(0, 77));
}

TEST_F(GzLib, EmptyStreamDeliversNothing)
{
    EXPECT_EQ(read_whole(gz(tarforge::gzip(""))), "");
}

TEST_F(GzLib, DeliversTheSameInChunksOfAnySize)
{
    const std::string plain = sample(300000);
    const char* const path = gz(tarforge::gzip(plain));
    for (const unsigned int chunk : {1U, 511U, 512U, 4096U, 10240U, 102400U, 1U << 20})
        EXPECT_EQ(read_whole(path, chunk), plain) << chunk;
}

TEST_F(GzLib, OptionalHeaderFieldsAreSkippedAlsoAcrossBuffers)
{
    Gzip options;
    options.extra = std::string(60000, '\x1f');
    options.name = std::string(5000, 'n');
    options.comment = std::string(5000, 'c');
    options.headerCrc = true;
    EXPECT_EQ(read_whole(gz(tarforge::gzip(sample(50000), options))), sample(50000));
}

// The length field of the trailer must not be passed to the inflater; the reader withholds it by
// file size and position. No data may be lost if the field is split between two input buffers.
TEST_F(GzLib, TrailerSplitBetweenTwoBuffersLosesNoData)
{
    const std::string plain = sample(6000);
    Gzip options;
    options.extra = "";
    const std::size_t bare = tarforge::gzip(plain, options).size();
    const std::size_t toBoundary = (bare / 4096 + 1) * 4096 - bare;
    for (std::size_t over = 0; over < 24; ++over) {
        options.extra = std::string(toBoundary - 12 + over, 'x');
        EXPECT_EQ(read_whole(gz(tarforge::gzip(plain, options))), plain) << over;
    }
}

TEST_F(GzLib, ModeIsIgnoredButMustNotBeNull)
{
    const char* const path = gz(tarforge::gzip("x"));
    const gzFile file = ugzopen(path, "");
    EXPECT_NE(file, nullptr);
    ugzclose(file);
    EXPECT_EQ(ugzopen(path, nullptr), nullptr);
}

TEST_F(GzLib, FileStartsWithTheLengthsOfItsTrailerAndInput)
{
    const std::string packed = tarforge::gzip(sample(20000));
    const gzFile file = ugzopen(gz(packed), "rb");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->outlen, 20000U);
    EXPECT_EQ(file->outOffset, 0U);
    EXPECT_EQ(file->slen, packed.size() - 4096);
    EXPECT_EQ(file->dictLen, 0U);
    EXPECT_EQ(static_cast<void*>(&file->d), static_cast<void*>(file));
    EXPECT_NE(fcntl(file->fd, F_GETFD) & FD_CLOEXEC, 0);
    char buf[100];
    ugzread(file, buf, sizeof buf);
    EXPECT_EQ(file->outlen, 19900U);
    EXPECT_EQ(file->outOffset, 100U);
    ugzclose(file);
}

TEST_F(GzLib, CallbackReturnsTheFirstByteAndLeavesTheRest)
{
    const std::string packed = tarforge::gzip(sample(20000), {.level = 0});
    const gzFile file = ugzopen(gz(packed), "rb");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(ugzreadCallback(&file->d), static_cast<unsigned char>(packed[4096]));
    EXPECT_EQ(file->d.source, file->source + 1);
    EXPECT_EQ(file->d.source_limit, file->source + 4096);
    EXPECT_EQ(file->slen, packed.size() - 2 * 4096);
    for (std::size_t at = 2 * 4096; at < packed.size(); at += 4096)
        EXPECT_EQ(ugzreadCallback(&file->d), static_cast<unsigned char>(packed[at]));
    const std::size_t tail = packed.size() % 4096;
    EXPECT_EQ(file->d.source_limit, file->source + tail - 4); // the length field is withheld
    EXPECT_EQ(file->slen, 0U);
    EXPECT_EQ(ugzreadCallback(&file->d), -1);
    ugzclose(file);
}

TEST_F(GzLib, CallbackWithoutARecordOrDescriptorIsTheEnd)
{
    EXPECT_EQ(ugzreadCallback(nullptr), -1);
    gzFile_s file{};
    file.fd = -1;
    EXPECT_EQ(ugzreadCallback(&file.d), -1);
}

TEST_F(GzLib, BadArgumentsOfReadAndClose)
{
    const gzFile file = ugzopen(gz(tarforge::gzip("x")), "rb");
    ASSERT_NE(file, nullptr);
    char buf[1];
    EXPECT_EQ(ugzread(nullptr, buf, 1), -1);
    EXPECT_EQ(ugzread(file, nullptr, 1), -1);
    EXPECT_EQ(ugzread(file, buf, 0), -1);
    EXPECT_EQ(ugzread(file, buf, 1), 1); // none of these calls consumed data
    EXPECT_EQ(ugzclose(file), 0);
    EXPECT_EQ(ugzclose(nullptr), -1);
}

TEST_F(GzLib, OpenFailsForNullMissingFileAndDirectory)
{
    EXPECT_EQ(ugzopen(nullptr, "rb"), nullptr);
    EXPECT_EQ(ugzopen((dir_ / "missing").c_str(), "rb"), nullptr);
    EXPECT_EQ(ugzopen(dir_.path().c_str(), "rb"), nullptr);
}

TEST_F(GzLib, OpenFailsWhenAnyAllocationFails)
{
    const char* const path = gz(tarforge::gzip(sample(1000)));
    for (unsigned nth = 1; nth <= 3; ++nth) { // the record, the input buffer, the window
        const std::ptrdiff_t before = open_descriptors();
        alloc_fault::arm(nth);
        const gzFile file = ugzopen(path, "rb");
        const unsigned asked = alloc_fault::disarm();
        EXPECT_EQ(file, nullptr) << nth;
        EXPECT_EQ(asked, nth);
        EXPECT_EQ(open_descriptors(), before);
    }
    alloc_fault::arm(0);
    const gzFile file = ugzopen(path, "rb");
    EXPECT_EQ(alloc_fault::disarm(), 3U);
    EXPECT_EQ(ugzclose(file), 0);
}

TEST_F(GzLib, OpenFailsWhenSeekingOrReadingFails)
{
    const char* const path = gz(tarforge::gzip(sample(1000)));
    for (int nth = 1; nth <= 2; ++nth) { // the read of the trailer, the read of the first buffer
        failingSeek = nth;
        EXPECT_EQ(ugzopen(path, "rb"), nullptr) << nth;
        failingRead = nth;
        EXPECT_EQ(ugzopen(path, "rb"), nullptr) << nth;
    }
    EXPECT_EQ(failingSeek, 0);
    EXPECT_EQ(failingRead, 0);
    EXPECT_EQ(read_whole(path), sample(1000));
}

TEST_F(GzLib, ReadErrorLaterIsNotReported)
{
    const gzFile file = ugzopen(gz(tarforge::gzip(sample(50000))), "rb");
    ASSERT_NE(file, nullptr);
    std::string buf(50000, '\0');
    failingRead = 1;
    EXPECT_EQ(ugzread(file, buf.data(), 50000), 50000);
    EXPECT_EQ(failingRead, 0);
    EXPECT_EQ(buf.substr(0, 3000), sample(50000).substr(0, 3000));
    ugzclose(file);
}

TEST_F(GzLib, OpenFailsForEveryForeignHeader)
{
    EXPECT_EQ(ugzopen(gz(tarforge::gzip("x", {.method = 7})), "rb"), nullptr);
    EXPECT_EQ(ugzopen(gz(tarforge::gzip("x", {.flags = 0x80})), "rb"), nullptr);
    EXPECT_EQ(ugzopen(gz(std::string("\x1f\x9d") + std::string(100, 'x')), "rb"), nullptr);
    EXPECT_EQ(ugzopen(gz(std::string(100, '\0')), "rb"), nullptr);
}

TEST_F(GzLib, CloseReleasesTheDescriptor)
{
    const char* const path = gz(tarforge::gzip("x"));
    const std::ptrdiff_t before = open_descriptors();
    const gzFile file = ugzopen(path, "rb");
    EXPECT_EQ(open_descriptors(), before + 1);
    ugzclose(file);
    EXPECT_EQ(open_descriptors(), before);
}
