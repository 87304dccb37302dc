// Tests of the compressed layer: one gzip member that every reader accepts, identical for any
// number of threads.
#include "import/output/gzip_writer.hpp"

#include "layout_builder.hpp"
#include "zncontainer.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <zlib.h>

using namespace zncimport;

namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20U;

// Repetitive text that contains an incompressible part.
std::string sample(std::size_t size)
{
    std::mt19937_64 random(size);
    std::string text;
    while (text.size() < size) {
        text += "the same line again and again, number " + std::to_string(random() % 1000) + "\n";
        if (random() % 64 == 0)
            for (int i = 0; i < 100; i++)
                text += std::to_string(random());
    }
    text.resize(size);
    return text;
}

std::string noise(std::size_t size)
{
    std::mt19937_64 random(1);
    std::string bytes;
    while (bytes.size() < size) {
        const std::uint64_t number = random();
        bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
    }
    bytes.resize(size);
    return bytes;
}

std::span<const std::byte> bytes_of(const std::string& text)
{
    return std::as_bytes(std::span(text));
}

ByteSink into(std::string& out)
{
    return [&out](std::span<const std::byte> part) {
        out.append(reinterpret_cast<const char*>(part.data()), part.size());
    };
}

std::string compressed(const std::string& text, Compressor compressor, unsigned threads = 2,
                       std::size_t part = SIZE_MAX)
{
    std::string out;
    GzipWriter writer(compressor, into(out), threads);
    for (std::size_t at = 0; at < text.size(); at += std::min(part, text.size() - at))
        writer.write(bytes_of(text).subspan(at, std::min(part, text.size() - at)));
    writer.finish();
    return out;
}

// Decompresses the first member with zlib; nothing may follow it.
std::string inflated(std::string packed, std::size_t size)
{
    z_stream stream{};
    EXPECT_EQ(inflateInit2(&stream, 31), Z_OK);
    std::string text(size + 1, '\0');
    stream.next_in = reinterpret_cast<unsigned char*>(packed.data());
    stream.avail_in = static_cast<uInt>(packed.size());
    stream.next_out = reinterpret_cast<unsigned char*>(text.data());
    stream.avail_out = static_cast<uInt>(text.size());
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    EXPECT_EQ(stream.avail_in, 0U);
    text.resize(stream.total_out);
    inflateEnd(&stream);
    return text;
}

// The same with the library's reader, which takes the length from the trailer.
std::string read_by_library(const std::string& packed, std::size_t size)
{
    const layout::TempDir dir;
    layout::write_file(dir / "layer", packed);
    gzFile file = ugzopen((dir / "layer").c_str(), "rb");
    EXPECT_NE(file, nullptr);
    std::string text;
    std::string part(100000, '\0');
    while (file != nullptr && text.size() <= size) {
        const auto got = ugzread(file, part.data(), static_cast<unsigned>(part.size()));
        if (got <= 0)
            break;
        text.append(part, 0, static_cast<std::size_t>(got));
    }
    if (file != nullptr)
        ugzclose(file);
    return text;
}

class Gzip : public testing::TestWithParam<Compressor> {
  protected:
    void SetUp() override
    {
        if (!has_compressor(GetParam()))
            GTEST_SKIP() << "this build has no ISA-L";
    }
};

INSTANTIATE_TEST_SUITE_P(Both, Gzip, testing::Values(Compressor::kIsal, Compressor::kZlib),
                         [](const auto& compressor) {
                             return compressor.param == Compressor::kIsal ? "Isal" : "Zlib";
                         });

} // namespace

TEST_P(Gzip, GivesBackWhatWasWritten)
{
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{511}, kMiB - 1, kMiB,
                                   kMiB + 1, 4 * kMiB + 12345})
        for (const std::string& text : {sample(size), noise(size), std::string(size, '\0')})
            EXPECT_TRUE(inflated(compressed(text, GetParam()), size) == text) << size;
}

TEST_P(Gzip, IsReadByTheLibrary)
{
    const std::string text = sample(5 * kMiB + 17);
    EXPECT_TRUE(read_by_library(compressed(text, GetParam()), text.size()) == text);
}

TEST_P(Gzip, HasAFixedHeaderAndATrailer)
{
    const std::string text = sample(2 * kMiB + 1);
    const std::string packed = compressed(text, GetParam());
    EXPECT_EQ(packed.substr(0, 10), std::string("\x1f\x8b\x08\0\0\0\0\0\0\xff", 10));
    const auto number = [&](std::size_t from_end) {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < 4; i++)
            value |= std::uint32_t{static_cast<unsigned char>(packed[packed.size() - from_end + i])}
                     << (8 * i);
        return value;
    };
    EXPECT_EQ(number(4), text.size());
    EXPECT_EQ(number(8), crc32_z(0, reinterpret_cast<const Bytef*>(text.data()), text.size()));
}

TEST_P(Gzip, IsTheSameForAnyNumberOfThreadsAndAnyParts)
{
    const std::string text = sample(5 * kMiB + 4711);
    const std::string packed = compressed(text, GetParam(), 1);
    for (const unsigned threads : {0U, 2U, 8U})
        EXPECT_TRUE(compressed(text, GetParam(), threads) == packed) << threads;
    for (const std::size_t part : {std::size_t{512}, std::size_t{100001}, kMiB, 2 * kMiB})
        EXPECT_TRUE(compressed(text, GetParam(), 2, part) == packed) << part;
}

// Each piece uses the end of the previous one as its dictionary: repeated random data compress well
// across pieces.
TEST_P(Gzip, RemembersAcrossPieces)
{
    const std::string again = noise(20000);
    std::string text = sample(kMiB - again.size()) + again + again;
    const std::size_t once = compressed(text.substr(0, kMiB), GetParam()).size();
    EXPECT_LT(compressed(text, GetParam()).size(), once + again.size() / 10);
}

TEST_P(Gzip, HandsOverInOrderWithFewPiecesWaiting)
{
    std::size_t out = 0;
    std::size_t most = 0;
    std::size_t written = 0;
    const std::string text = noise(kMiB);
    GzipWriter writer(
        GetParam(), [&](std::span<const std::byte> part) { out += part.size(); }, 2);
    for (int i = 0; i < 40; i++) {
        writer.write(bytes_of(text));
        written += text.size();
        most = std::max(most, written - std::min(out, written));
    }
    writer.finish();
    EXPECT_LE(most, 8 * kMiB);
    EXPECT_GT(out, 40 * kMiB);
}

TEST_P(Gzip, PassesOnWhatTheSinkThrows)
{
    int calls = 0;
    GzipWriter writer(
        GetParam(),
        [&](std::span<const std::byte>) {
            if (++calls > 2)
                throw std::runtime_error("full");
        },
        2);
    const std::string text = sample(kMiB);
    EXPECT_THROW(
        {
            for (int i = 0; i < 40; i++)
                writer.write(bytes_of(text));
        },
        std::runtime_error);
}

TEST_P(Gzip, MayBeDroppedAtAnyTime)
{
    const std::string text = noise(kMiB);
    for (int pieces = 0; pieces < 6; pieces++) {
        std::string out;
        GzipWriter writer(GetParam(), into(out), 4);
        for (int i = 0; i < pieces; i++)
            writer.write(bytes_of(text));
    }
}

TEST(GzipWriter, RefusesAMissingCompressor)
{
    EXPECT_TRUE(has_compressor(Compressor::kZlib));
    if (has_compressor(Compressor::kIsal))
        GTEST_SKIP() << "this build has ISA-L";
    EXPECT_THROW(GzipWriter(Compressor::kIsal, [](std::span<const std::byte>) {}), Failure);
}
