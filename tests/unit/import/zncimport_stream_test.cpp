// Tests of parts of files, decompression and its limits, and the spool.
#include "import/source/stream.hpp"
#include "zncimport_input.hpp"

using namespace zncimport;
using namespace import_input;

namespace {

std::string sample()
{
    std::string text;
    for (int i = 0; i < 40000; i++)
        text += std::to_string(i * 7919) + "\n";
    return text;
}

std::string plain_of(const std::string& stored, std::size_t at_a_time = SIZE_MAX,
                     const Limits& limits = {})
{
    TextReader source(stored, at_a_time);
    Budget budget(limits);
    const ReaderPtr reader = plain(source, "stream", budget);
    std::string text = content(*reader);
    EXPECT_EQ(source.left(), 0U);
    return text;
}

std::string problem_of(const std::string& stored, const Limits& limits = {})
{
    return failure_of([&] { static_cast<void>(plain_of(stored, SIZE_MAX, limits)); });
}

// Returns a text compressed by a program.
std::string packed(const std::string& program, const std::string& text)
{
    const test_tree::TempDir dir;
    test_tree::write_file(dir / "text", text);
    shell(dir, program + " <text >packed");
    return test_tree::read_file(dir / "packed");
}

Limits limited(std::uint64_t bytes, std::uint64_t ratio)
{
    Limits limits;
    limits.bytes = bytes;
    limits.ratio = ratio;
    return limits;
}

} // namespace

TEST(Plain, EveryCompressionIsDetectedByItsFirstBytes)
{
    const std::string text = sample();
    for (const char* program : {"cat", "gzip -c", "zstd -qc", "xz -c", "bzip2 -c"}) {
        const std::string stored = packed(program, text);
        EXPECT_TRUE(plain_of(stored) == text) << program;
        EXPECT_TRUE(plain_of(stored, 1000) == text) << program;
    }
}

TEST(Plain, AnEmptyTextComesOutOfEveryCompression)
{
    for (const char* program : {"cat", "gzip -c", "zstd -qc", "xz -c", "bzip2 -c"})
        EXPECT_EQ(plain_of(packed(program, "")), "") << program;
}

TEST(Plain, ShortUncompressedStreamsArePassedThrough)
{
    for (const char* text : {"", "a", "\x1f", "BZ",
                             "\xfd"
                             "7z"})
        EXPECT_EQ(plain_of(text), text);
}

TEST(Plain, ConcatenatedMembersAndFramesAreOneText)
{
    for (const char* program : {"gzip -c", "zstd -qc", "xz -c", "bzip2 -c"}) {
        const std::string two = packed(program, "one\n") + packed(program, "two\n");
        EXPECT_EQ(plain_of(two), "one\ntwo\n") << program;
    }
    const std::string skipped("\x50\x2a\x4d\x18\x04\0\0\0abcd", 12);
    const std::string frame = packed("zstd -qc", "text");
    EXPECT_EQ(plain_of(skipped + frame), "text");
    EXPECT_EQ(plain_of(frame + skipped), "text");
}

TEST(Plain, WhatIsCompressedTwiceIsDecompressedOnce)
{
    const std::string once = packed("gzip -c", "text");
    EXPECT_TRUE(plain_of(packed("gzip -c", once)) == once);
    EXPECT_TRUE(plain_of(packed("zstd -qc", once)) == once);
}

TEST(Plain, OtherBytesBehindTheDataAreAnError)
{
    for (const char* program : {"gzip -c", "zstd -qc", "xz -c", "bzip2 -c"})
        EXPECT_NE(problem_of(packed(program, "text") + "garbage garbage"), "") << program;
    // More than is read ahead.
    EXPECT_NE(problem_of(packed("gzip -c", "text") + std::string(1U << 20U, 'x')), "");
    EXPECT_NE(problem_of(packed("gzip -c", "text") + std::string(512, '\0')), "");
}

TEST(Plain, TruncatedAndDamagedStreamsAreErrors)
{
    for (const char* program : {"gzip -c", "zstd -qc", "xz -c", "bzip2 -c"}) {
        const std::string stored = packed(program, sample());
        EXPECT_NE(problem_of(stored.substr(0, stored.size() / 2)), "") << program;
        EXPECT_NE(problem_of(stored.substr(0, stored.size() - 1)), "") << program;
    }
    std::string stored = packed("gzip -c", sample());
    stored[stored.size() - 6] = static_cast<char>(stored[stored.size() - 6] ^ 1);
    EXPECT_NE(problem_of(stored), "") << "the checksum";
}

TEST(Plain, ADecompressionBombIsAnErrorThatNamesTheOption)
{
    const std::string zeros = packed("gzip -c", std::string(std::size_t{32} << 20U, '\0'));
    EXPECT_TRUE(has(problem_of(zeros, limited(1U << 30U, 100)), "--max-ratio"));
    EXPECT_TRUE(has(problem_of(zeros, limited(1U << 20U, 1100)), "--max-bytes"));
    EXPECT_EQ(problem_of(zeros, limited(1U << 30U, 1100)), "");
}

TEST(Plain, ShortStreamsMayHaveAnyRatio)
{
    const std::string zeros = packed("zstd -qc", std::string(std::size_t{16} << 20U, '\0'));
    EXPECT_EQ(problem_of(zeros, limited(1U << 30U, 2)), "");
}

TEST(Budget, CountsEveryStreamAndEveryMember)
{
    Limits limits = limited(10, 1100);
    limits.entries = 2;
    Budget budget(limits);
    budget.take_bytes("a", 6);
    EXPECT_TRUE(has(failure_of([&] { budget.take_bytes("b", 5); }), "b: "));
    budget.take_bytes("c", 4);
    EXPECT_NE(failure_of([&] { budget.take_bytes("d", UINT64_MAX); }), "");
    budget.take_entry("a");
    budget.take_entry("a");
    EXPECT_TRUE(has(failure_of([&] { budget.take_entry("z"); }), "--max-entries"));
}

TEST(ReadAll, FailsBeyondTheLimit)
{
    TextReader fits("1234");
    EXPECT_EQ(read_all(fits, "document", 4), "1234");
    TextReader longer("12345");
    EXPECT_TRUE(
        has(failure_of([&] { static_cast<void>(read_all(longer, "document", 4)); }), "--max-json"));
}

TEST(ReadPart, GivesThatPartAndSaysWhenTheFileIsShorter)
{
    const test_tree::TempDir dir;
    test_tree::write_file(dir / "file", "0123456789");
    const znc::UniqueFd file = open_file(dir / "file");
    EXPECT_EQ(content(*read_part(file.get(), "file", 2, 5)), "23456");
    EXPECT_EQ(content(*read_part(file.get(), "file", 10, 0)), "");
    EXPECT_EQ(failure_of([&] { content(*read_part(file.get(), "file", 8, 5)); }),
              "file: is truncated");
    const ReaderPtr reader = read_part(file.get(), "file", 0, 6);
    EXPECT_EQ(reader->skip(4), 4U);
    EXPECT_EQ(reader->skip(4), 2U);
    EXPECT_EQ(content(*reader), "");
}

TEST(DigestReader, CountsAndHashesUpToTheEnd)
{
    TextReader source("some text", 4);
    DigestReader reader(source);
    std::array<std::byte, 3> part{};
    EXPECT_EQ(reader.read(part), 3U);
    reader.drain();
    EXPECT_EQ(reader.count(), 9U);
    EXPECT_EQ(reader.digest(), sha256("some text"));
}

TEST(Spool, AppendsExtents)
{
    const test_tree::TempDir dir;
    Spool spool(dir.path());
    const auto append = [&](std::string_view text) {
        spool.append(std::as_bytes(std::span(text.data(), text.size())));
    };
    append("first");
    append("second");
    EXPECT_EQ(content(*spool.read({5, 6})), "second");
    EXPECT_EQ(spool.size(), 11U);
    EXPECT_EQ(content(*spool.read({0, 11})), "firstsecond");
    EXPECT_TRUE(std::filesystem::is_empty(dir.path())) << "the file has no name";
    EXPECT_NE(failure_of([&] { Spool("/nonexistent"); }), "");
}
