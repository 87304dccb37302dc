// gzip_mutator.cpp - how libFuzzer changes gzip files: what is in them, compressed again in some
// way; the DEFLATE data with the trailer's length kept small; or any bytes.
#include "tarforge.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include <zlib.h>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

using Random = std::minstd_rand;

constexpr std::size_t kContentMax = 16384;
constexpr int kAnyGzip = 15 + 16;

std::size_t pick(Random& random, std::size_t count)
{
    return std::uniform_int_distribution<std::size_t>(0, count - 1)(random);
}

// As much of the content as can be had.
std::string content_of(const std::uint8_t* data, std::size_t size)
{
    std::string out(kContentMax, '\0');
    z_stream stream = {};
    if (inflateInit2(&stream, kAnyGzip) != Z_OK)
        return {};
    stream.next_in = const_cast<Bytef*>(data);
    stream.avail_in = static_cast<uInt>(size);
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    inflate(&stream, Z_SYNC_FLUSH);
    out.resize(stream.total_out);
    inflateEnd(&stream);
    return out;
}

std::string packed(const std::string& content, Random& random)
{
    tarforge::Gzip options;
    options.level = static_cast<int>(pick(random, 10));
    options.strategy = static_cast<int>(pick(random, 5));
    if (pick(random, 4) == 0)
        options.name = std::string(pick(random, 40), 'n');
    if (pick(random, 4) == 0)
        options.extra = std::string(pick(random, 200), 'e');
    if (pick(random, 4) == 0)
        options.comment = std::string(pick(random, 40), 'c');
    options.headerCrc = pick(random, 8) == 0;
    std::string file = tarforge::gzip(content, options);
    file[4] = static_cast<char>(pick(random, 256)); // how much is asked for at once
    file[5] = static_cast<char>(pick(random, 256));
    return file;
}

} // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned seed)
{
    Random random(seed);
    const std::size_t how = pick(random, 4);
    if (how == 0)
        return LLVMFuzzerMutate(data, size, maxSize);
    if (how == 1) {
        std::string content = content_of(data, size);
        const std::size_t before = content.size();
        content.resize(before + 1024);
        content.resize(LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(content.data()), before,
                                        content.size()));
        const std::string file = packed(content, random);
        if (file.size() <= maxSize) {
            std::memcpy(data, file.data(), file.size());
            return file.size();
        }
    }
    const std::size_t now = LLVMFuzzerMutate(data, size, maxSize);
    if (now >= 18 && how == 2) { // a length that is worth reading
        data[now - 1] = 0;
        data[now - 2] = static_cast<std::uint8_t>(pick(random, 2));
    }
    return now;
}
