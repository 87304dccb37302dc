// Tests of the DEFLATE adapter: the guarantees of the uzlib interface, with every inflater.
#include "uzlib.h"

#include "guarded.hpp"
#include "tarforge.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <zlib.h>

namespace {

using tarforge::Gzip;

// A record whose input arrives in pieces: the first directly, the others through the callback.
struct Feed {
    uzlib_uncomp d{}; // must be first, as in the gzip reader
    std::string bytes;
    std::size_t at = 0;
    std::size_t piece = 0;
    int calls = 0;
    int callsAfterEnd = 0;
    bool ended = false;
    std::unique_ptr<Guarded> current;
    unsigned char window[32768];
};

std::size_t next_piece(Feed& feed)
{
    const std::size_t n = std::min(feed.piece, feed.bytes.size() - feed.at);
    if (feed.current == nullptr)
        feed.current = std::make_unique<Guarded>(feed.piece);
    unsigned char* const data = feed.current->end() - n; // directly before the inaccessible page
    std::copy_n(feed.bytes.begin() + static_cast<std::ptrdiff_t>(feed.at), n, data);
    feed.at += n;
    feed.d.source = data;
    feed.d.source_limit = data + n;
    return n;
}

int refill(uzlib_uncomp* d)
{
    Feed& feed = *reinterpret_cast<Feed*>(d);
    ++feed.calls;
    if (feed.ended)
        ++feed.callsAfterEnd;
    if (next_piece(feed) == 0) {
        feed.ended = true;
        return -1;
    }
    return *d->source++;
}

// Supplies one byte per call, without a buffer.
int one_byte(uzlib_uncomp* d)
{
    Feed& feed = *reinterpret_cast<Feed*>(d);
    return feed.at < feed.bytes.size() ? static_cast<unsigned char>(feed.bytes[feed.at++]) : -1;
}

std::unique_ptr<Feed> start(std::string bytes, std::size_t piece)
{
    auto feed = std::make_unique<Feed>();
    feed->bytes = std::move(bytes);
    feed->piece = piece;
    uzlib_init();
    uzlib_uncompress_init(&feed->d, feed->window, sizeof feed->window);
    next_piece(*feed);
    feed->d.source_read_cb = refill;
    return feed;
}

struct Result {
    int status;
    std::string bytes;
};

// Inflates everything, `chunk` bytes at a time, into a buffer followed by an inaccessible page.
Result inflate_all(Feed& feed, std::size_t chunk, std::size_t limit = 64 << 20)
{
    Result result = {TINF_OK, {}};
    const Guarded out(chunk);
    while (result.status == TINF_OK && result.bytes.size() < limit) {
        feed.d.dest_start = feed.d.dest = out.data();
        feed.d.dest_limit = out.end();
        result.status = uzlib_uncompress_chksum(&feed.d);
        EXPECT_GE(feed.d.dest, out.data());
        EXPECT_LE(feed.d.dest, out.end());
        EXPECT_TRUE(result.status != TINF_OK || feed.d.dest == out.end());
        const auto got = static_cast<std::size_t>(feed.d.dest - out.data());
        result.bytes.append(out.text().substr(0, got));
    }
    return result;
}

std::string sample(std::size_t size, unsigned seed = 1)
{
    std::mt19937 random(seed);
    std::string text;
    while (text.size() < size) {
        if (random() % 3 == 0 && text.size() > 100)
            text += text.substr(random() % (text.size() - 50), random() % 300 + 3);
        else
            for (auto n = random() % 40; n > 0; --n)
                text.push_back(static_cast<char>(random() % 64 + ' '));
    }
    text.resize(size);
    return text;
}

std::string sample_gzip(std::size_t size, const Gzip& options = {})
{
    return tarforge::gzip(sample(size), options);
}

} // namespace

TEST(UzlibAdapter, InflatesEveryBlockKindInAnyPieces)
{
    const std::string plain = sample(200000);
    const std::vector<std::pair<int, int>> kinds = {{0, Z_DEFAULT_STRATEGY},
                                                    {1, Z_DEFAULT_STRATEGY},
                                                    {6, Z_FIXED},
                                                    {6, Z_HUFFMAN_ONLY},
                                                    {6, Z_RLE},
                                                    {9, Z_DEFAULT_STRATEGY}};
    for (const auto& [level, strategy] : kinds) {
        Gzip options;
        options.level = level;
        options.strategy = strategy;
        const std::string packed = tarforge::gzip(plain, options);
        for (const std::size_t piece : {1UL, 7UL, 4096UL, packed.size()}) {
            for (const std::size_t chunk : {1UL, 511UL, 102400UL}) {
                if (piece * chunk < 4096)
                    continue; // slow, and does not cover another code path
                const auto feed = start(packed, piece);
                ASSERT_EQ(uzlib_gzip_parse_header(&feed->d), TINF_OK);
                const Result result = inflate_all(*feed, chunk);
                EXPECT_EQ(result.status, TINF_DONE) << level << ' ' << strategy << ' ' << piece;
                EXPECT_EQ(result.bytes, plain) << level << ' ' << strategy << ' ' << piece;
            }
        }
    }
}

TEST(UzlibAdapter, StopsExactlyAtTheLimitAndGoesOnThere)
{
    const std::string plain = sample(5000);
    for (std::size_t first = 1; first < plain.size(); first += 97) {
        const auto feed = start(tarforge::gzip(plain), 4096);
        ASSERT_EQ(uzlib_gzip_parse_header(&feed->d), TINF_OK);
        std::string out(plain.size(), '\0');
        auto* const begin = reinterpret_cast<unsigned char*>(out.data());
        feed->d.dest_start = feed->d.dest = begin;
        feed->d.dest_limit = begin + first;
        ASSERT_EQ(uzlib_uncompress_chksum(&feed->d), TINF_OK);
        ASSERT_EQ(feed->d.dest, begin + first);
        EXPECT_EQ(out.substr(first), std::string(plain.size() - first, '\0'));
        feed->d.dest_limit = begin + plain.size();
        uzlib_uncompress_chksum(&feed->d);
        EXPECT_EQ(out, plain);
    }
}

TEST(UzlibAdapter, TakesInputFromACallbackThatHasNoBuffer)
{
    const std::string plain = sample(3000);
    const auto feed = start(tarforge::gzip(plain), 0);
    feed->d.source_read_cb = one_byte;
    ASSERT_EQ(uzlib_gzip_parse_header(&feed->d), TINF_OK);
    const Result result = inflate_all(*feed, 100);
    EXPECT_EQ(result.status, TINF_DONE);
    EXPECT_EQ(result.bytes, plain);
    EXPECT_EQ(feed->at, feed->bytes.size() - 4); // the adapter does not read the length field
}

TEST(UzlibAdapter, HeaderFieldsAreConsumedAlsoAcrossPieces)
{
    const std::string plain = sample(1000);
    for (unsigned fields = 0; fields < 16; ++fields) {
        Gzip options;
        options.headerCrc = (fields & 1) != 0;
        if ((fields & 2) != 0)
            options.extra = std::string(9000, '\0');
        if ((fields & 4) != 0)
            options.name = std::string(5000, 'n');
        if ((fields & 8) != 0)
            options.comment = std::string(5000, 'c');
        options.flags = 0x01; // FTEXT, which has no effect
        for (const std::size_t piece : {1UL, 3UL, 4096UL}) {
            const auto feed = start(tarforge::gzip(plain, options), piece);
            ASSERT_EQ(uzlib_gzip_parse_header(&feed->d), TINF_OK) << fields;
            EXPECT_EQ(inflate_all(*feed, 4096).bytes, plain) << fields << ' ' << piece;
        }
    }
}

TEST(UzlibAdapter, HeaderOfSomethingElseIsRefused)
{
    const std::string good = sample_gzip(100);
    for (const std::size_t at : {0UL, 1UL, 2UL}) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] + 1);
        EXPECT_EQ(uzlib_gzip_parse_header(&start(bad, 4096)->d), TINF_DATA_ERROR) << at;
    }
    for (const unsigned flag : {0x20U, 0x40U, 0x80U}) {
        Gzip options;
        options.flags = static_cast<std::uint8_t>(flag);
        const auto feed = start(sample_gzip(100, options), 4096);
        EXPECT_EQ(uzlib_gzip_parse_header(&feed->d), TINF_DATA_ERROR) << flag;
    }
}

TEST(UzlibAdapter, HeaderCutAnywhereIsRefused)
{
    Gzip options;
    options.extra = "extra";
    options.name = "name";
    options.comment = "comment";
    options.headerCrc = true;
    const std::string packed = sample_gzip(100, options);
    const std::size_t header = 10 + 2 + 5 + 5 + 8 + 2;
    for (std::size_t cut = 0; cut < header; ++cut) {
        const auto feed = start(packed.substr(0, cut), 4096);
        EXPECT_EQ(uzlib_gzip_parse_header(&feed->d), TINF_DATA_ERROR) << cut;
    }
    EXPECT_EQ(uzlib_gzip_parse_header(&start(packed.substr(0, header), 4096)->d), TINF_OK);
}

TEST(UzlibAdapter, ChecksumOfTheTrailerIsCompared)
{
    for (const std::size_t piece : {1UL, 5UL, 4096UL}) {
        const auto good = start(sample_gzip(50000), piece);
        ASSERT_EQ(uzlib_gzip_parse_header(&good->d), TINF_OK);
        EXPECT_EQ(inflate_all(*good, 100000).status, TINF_DONE) << piece;
        EXPECT_EQ(good->d.checksum, tarforge::crc32(sample(50000)));

        Gzip options;
        options.crc = 0x12345678;
        const auto bad = start(sample_gzip(50000, options), piece);
        ASSERT_EQ(uzlib_gzip_parse_header(&bad->d), TINF_OK);
        EXPECT_EQ(inflate_all(*bad, 100000).status, TINF_CHKSUM_ERROR) << piece;
    }
}

TEST(UzlibAdapter, WithoutAGzipHeaderNoTrailerIsExpected)
{
    const std::string plain = sample(5000);
    const auto feed = start(tarforge::deflate(plain), 4096);
    const Result result = inflate_all(*feed, 8192);
    EXPECT_EQ(result.status, TINF_DONE);
    EXPECT_EQ(result.bytes, plain);
}

TEST(UzlibAdapter, StreamCutAnywhereIsADataErrorWithAllThatCameBefore)
{
    const std::string plain = sample(3000);
    const std::string packed = tarforge::gzip(plain);
    for (std::size_t cut = 10; cut < packed.size() - 4; ++cut) {
        const auto feed = start(packed.substr(0, cut), 512);
        ASSERT_EQ(uzlib_gzip_parse_header(&feed->d), TINF_OK);
        const Result result = inflate_all(*feed, 4096);
        EXPECT_EQ(result.status, TINF_DATA_ERROR) << cut;
        EXPECT_EQ(result.bytes, plain.substr(0, result.bytes.size())) << cut;
        EXPECT_EQ(feed->callsAfterEnd, 0) << cut;
    }
}

TEST(UzlibAdapter, OutcomeDoesNotChangeOnFurtherCalls)
{
    const auto feed = start(sample_gzip(100), 4096);
    ASSERT_EQ(uzlib_gzip_parse_header(&feed->d), TINF_OK);
    ASSERT_EQ(inflate_all(*feed, 4096).status, TINF_DONE);
    unsigned char more[10] = "untouched";
    feed->d.dest = more;
    feed->d.dest_limit = more + sizeof more;
    EXPECT_EQ(uzlib_uncompress_chksum(&feed->d), TINF_DONE);
    EXPECT_EQ(feed->d.dest, more);
    EXPECT_STREQ(reinterpret_cast<char*>(more), "untouched");
}

TEST(UzlibAdapter, FullDestinationConsumesNothing)
{
    const auto feed = start(sample_gzip(100), 4096);
    ASSERT_EQ(uzlib_gzip_parse_header(&feed->d), TINF_OK);
    const unsigned char* const before = feed->d.source;
    unsigned char none = 0;
    feed->d.dest = feed->d.dest_limit = &none;
    EXPECT_EQ(uzlib_uncompress_chksum(&feed->d), TINF_OK);
    EXPECT_EQ(feed->d.source, before);
}

TEST(UzlibAdapter, RecordCanBeUsedForAnotherStream)
{
    const auto feed = start(sample_gzip(50000), 4096);
    ASSERT_EQ(uzlib_gzip_parse_header(&feed->d), TINF_OK);
    inflate_all(*feed, 100, 1000);
    feed->bytes = sample_gzip(70000);
    feed->at = 0;
    uzlib_uncompress_init(&feed->d, feed->window, sizeof feed->window);
    next_piece(*feed);
    ASSERT_EQ(uzlib_gzip_parse_header(&feed->d), TINF_OK);
    const Result result = inflate_all(*feed, 4096);
    EXPECT_EQ(result.status, TINF_DONE);
    EXPECT_EQ(result.bytes, sample(70000));
}

TEST(UzlibAdapter, GarbageNeverWritesBeyondTheLimitAndAlwaysEnds)
{
    std::mt19937 random(20);
    const std::string good = sample_gzip(20000);
    for (int round = 0; round < 3000; ++round) {
        std::string bytes = good.substr(0, 10);
        if (round % 2 == 0) {
            for (auto n = random() % 600; n > 0; --n)
                bytes.push_back(static_cast<char>(random()));
        } else {
            bytes = good;
            for (auto n = random() % 8 + 1; n > 0; --n)
                bytes[10 + random() % (bytes.size() - 10)] = static_cast<char>(random());
        }
        const auto feed = start(bytes, random() % 700 + 1);
        ASSERT_EQ(uzlib_gzip_parse_header(&feed->d), TINF_OK);
        const Result result = inflate_all(*feed, random() % 5000 + 1, 1 << 20);
        EXPECT_TRUE(result.status == TINF_OK || result.status == TINF_DONE ||
                    result.status == TINF_DATA_ERROR || result.status == TINF_CHKSUM_ERROR)
            << result.status;
        EXPECT_EQ(feed->callsAfterEnd, 0);
    }
}
