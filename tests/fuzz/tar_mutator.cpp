// tar_mutator.cpp - how libFuzzer changes archives: fields of members, whole members, and any
// bytes, with the checksums mostly made right again, since no other header gets past its first
// check.
#include "tarforge.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

using tarforge::Field;
using tarforge::kBlock;
using Random = std::minstd_rand;

constexpr std::array kPaths = {"a",
                               "b",
                               "a/b",
                               "a/b/c",
                               "l",
                               "l/x",
                               "l/secret",
                               "a/",
                               "..",
                               "../outside/secret",
                               "../outside",
                               ".",
                               "/",
                               "",
                               "./a",
                               "a//b",
                               "../target-evil",
                               "/proc/self/root",
                               "...",
                               "\\a",
                               "a\\b"};
constexpr std::array kNumbers = {
    "00000000000", "00000000001", "00000001000", "00000000777", "37777777777",
    "40000000000", "77777777777", "-0000000001", "           ", "\x80\0\0\0\0\0\0\0\0\0\2",
    "0000755",     "00001"};
constexpr std::string_view kTypes("\0 01234567xgLKSZ", 16);

std::size_t pick(Random& random, std::size_t count)
{
    return std::uniform_int_distribution<std::size_t>(0, count - 1)(random);
}

std::uint8_t* field_of(std::uint8_t* header, Field field)
{
    return header + tarforge::extent(field).offset;
}

template <std::size_t N>
void put_text(std::uint8_t* header, Field field, const std::array<const char*, N>& from,
              Random& random)
{
    const std::size_t length = tarforge::extent(field).length;
    const std::string text = from.at(pick(random, N));
    std::memset(field_of(header, field), 0, length);
    std::memcpy(field_of(header, field), text.data(), std::min(length, text.size()));
}

void change_field(std::uint8_t* header, Random& random)
{
    constexpr std::array kPathFields = {Field::kName, Field::kLinkname, Field::kPrefix};
    constexpr std::array kNumberFields = {Field::kSize, Field::kMode, Field::kMtime,
                                          Field::kChksum};
    switch (pick(random, 4)) {
    case 0:
        put_text(header, kPathFields.at(pick(random, kPathFields.size())), kPaths, random);
        break;
    case 1:
        put_text(header, kNumberFields.at(pick(random, kNumberFields.size())), kNumbers, random);
        break;
    case 2:
        *field_of(header, Field::kType) =
            static_cast<std::uint8_t>(kTypes[pick(random, kTypes.size())]);
        break;
    default: {
        const auto field = static_cast<Field>(pick(random, 17));
        const auto [offset, length] = tarforge::extent(field);
        LLVMFuzzerMutate(header + offset, length, length);
    }
    }
}

bool is_zero(const std::uint8_t* block)
{
    return std::all_of(block, block + kBlock, [](std::uint8_t byte) { return byte == 0; });
}

std::size_t blocks_of_content(std::uint8_t* header)
{
    char text[13] = {};
    std::memcpy(text, field_of(header, Field::kSize), 12);
    const unsigned long size = std::strtoul(text, nullptr, 8);
    const std::uint8_t type = *field_of(header, Field::kType);
    const bool hasContent = type == 0 || type == '0' || type == ' ';
    return hasContent ? static_cast<std::size_t>(size / kBlock + (size % kBlock != 0 ? 1 : 0)) : 0;
}

// Where headers are, as an extractor goes on from one to the next.
std::vector<std::size_t> headers(std::uint8_t* data, std::size_t size)
{
    std::vector<std::size_t> found;
    for (std::size_t at = 0; at + kBlock <= size && !is_zero(data + at);) {
        found.push_back(at);
        at += kBlock * (1 + std::min(blocks_of_content(data + at), size / kBlock));
    }
    return found;
}

void make_checksum(std::uint8_t* header)
{
    std::uint8_t* const sum = field_of(header, Field::kChksum);
    std::memset(sum, ' ', 8);
    unsigned total = 0;
    for (std::size_t i = 0; i < kBlock; ++i)
        total += header[i];
    std::snprintf(reinterpret_cast<char*>(sum), 8, "%06o", total);
}

// Takes a block out, puts one in, or copies one over another.
std::size_t change_blocks(std::uint8_t* data, std::size_t size, std::size_t maxSize, Random& random)
{
    const std::size_t count = size / kBlock;
    const std::size_t from = pick(random, count) * kBlock;
    const std::size_t to = pick(random, count) * kBlock;
    switch (pick(random, 3)) {
    case 0:
        if (count < 2)
            return size;
        std::memmove(data + from, data + from + kBlock, size - from - kBlock);
        return size - kBlock;
    case 1:
        if (size + kBlock > maxSize)
            return size;
        std::memmove(data + to + kBlock, data + to, size - to);
        return size + kBlock;
    default:
        std::memmove(data + to, data + from, kBlock);
        return size;
    }
}

// Gives a member the name of another, or makes it a link to that.
void relate(std::uint8_t* data, const std::vector<std::size_t>& found, Random& random)
{
    std::uint8_t* const from = data + found[pick(random, found.size())];
    std::uint8_t* const to = data + found[pick(random, found.size())];
    const Field field = pick(random, 3) == 0 ? Field::kLinkname : Field::kName;
    std::memcpy(field_of(to, field), field_of(from, Field::kName),
                tarforge::extent(Field::kName).length);
}

std::size_t mutate(std::uint8_t* data, std::size_t size, std::size_t maxSize, Random& random)
{
    const std::vector<std::size_t> found = headers(data, size);
    const std::size_t how = pick(random, 9);
    if (found.empty() || how == 0)
        return LLVMFuzzerMutate(data, size, maxSize);
    if (how < 3)
        return change_blocks(data, size, maxSize, random);
    if (how == 3)
        relate(data, found, random);
    else
        change_field(data + found[pick(random, found.size())], random);
    return size;
}

} // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned seed)
{
    constexpr std::size_t kWrongChecksums = 16; // one in so many stays as it is
    Random random(seed);
    const bool compressed = size > 1 && data[0] == 0x1f && data[1] == 0x8b;
    if (compressed || size < kBlock)
        return LLVMFuzzerMutate(data, size, maxSize);
    const std::size_t now = mutate(data, size, maxSize, random);
    if (pick(random, kWrongChecksums) != 0)
        for (const std::size_t at : headers(data, now))
            make_checksum(data + at);
    return now;
}
