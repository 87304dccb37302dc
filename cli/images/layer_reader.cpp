#include "layer_reader.hpp"

#include "front/files.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <numeric>

namespace zncctl {
namespace {

template <std::size_t N> std::string_view field(const char (&text)[N])
{
    return {text, ::strnlen(text, N)};
}

// As the extractor reads numbers: octal digits behind blanks and a sign, or nothing.
template <std::size_t N> std::optional<std::uint64_t> octal(const char (&text)[N])
{
    std::string_view digits(text, N);
    digits.remove_prefix(std::min(digits.find_first_not_of(" \t\n\v\f\r"), digits.size()));
    const bool negative = digits.starts_with('-');
    digits.remove_prefix(negative || digits.starts_with('+') ? 1 : 0);
    std::uint64_t number = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), number, 8);
    if (error != std::errc())
        return std::nullopt;
    return negative ? 0 - number : number;
}

} // namespace

bool TarHeader::is_zero() const
{
    const auto* bytes = reinterpret_cast<const char*>(this);
    return std::all_of(bytes, bytes + kTarBlock, [](char c) { return c == 0; });
}

bool TarHeader::checksum_good() const
{
    TarHeader copy = *this;
    std::fill(std::begin(copy.checksum), std::end(copy.checksum), ' ');
    const auto* bytes = reinterpret_cast<const unsigned char*>(&copy);
    return octal(checksum) == std::accumulate(bytes, bytes + kTarBlock, std::uint64_t{0});
}

std::uint64_t TarHeader::size_value() const
{
    return octal(size).value_or(0);
}

std::uint64_t TarHeader::mode_value() const
{
    return octal(mode).value_or(0);
}

bool TarHeader::has_owner() const
{
    return octal(uid).value_or(0) != 0 || octal(gid).value_or(0) != 0;
}

std::string TarHeader::full_name() const
{
    const bool prefixed = std::memcmp(magic, "ustar", 6) == 0 && prefix[0] != 0;
    return (prefixed ? std::string(field(prefix)) + "/" : "") + std::string(field(name));
}

std::optional<std::string> clean_path(std::string_view name)
{
    std::string path;
    while (!name.empty()) {
        const std::size_t end = std::min(name.find_first_of("/\\"), name.size());
        const std::string_view part = name.substr(0, end);
        name.remove_prefix(std::min(end + 1, name.size()));
        if (part == "..")
            return std::nullopt;
        if (!part.empty() && part != ".")
            path.append("/").append(part);
    }
    return path;
}

bool names_directory(std::string_view name)
{
    return name.ends_with('/') || name.ends_with('\\');
}

LayerReader::LayerReader(const std::string& path) : file_(open_regular(path))
{
    std::array<unsigned char, 6> magic{};
    const bool read = file_ && ::pread(file_.get(), magic.data(), magic.size(), 0) == 6;
    // By the descriptor, and not by the path, where something else may stand by now.
    if (read && magic[0] == 0x1f && magic[1] == 0x8b)
        gz_.reset(ugzopen(descriptor_path(file_.get()).c_str(), "r"));
    static constexpr std::array<std::pair<const char*, std::string_view>, 3> kOthers = {
        {{"zstd", "\x28\xb5\x2f\xfd"}, {"xz", "\xfd\x37zXZ"}, {"bzip2", "BZh"}}};
    for (const auto& [name, start] : kOthers)
        if (read && std::memcmp(magic.data(), start.data(), start.size()) == 0)
            compression_ = name;
}

bool LayerReader::read(TarHeader& block)
{
    auto* out = reinterpret_cast<char*>(&block);
    count_ = 0;
    while (count_ < kTarBlock) {
        const auto want = static_cast<unsigned>(kTarBlock - count_);
        const ssize_t n =
            gz_ ? ugzread(gz_.get(), out + count_, want) : ::read(file_.get(), out + count_, want);
        if (n <= 0)
            break;
        count_ += static_cast<std::size_t>(n);
    }
    torn_ = torn_ || (count_ != 0 && count_ != kTarBlock);
    return count_ == kTarBlock;
}

bool LayerReader::skip(std::uint64_t bytes)
{
    std::uint64_t left = (bytes + kTarBlock - 1) / kTarBlock * kTarBlock;
    if (!gz_)
        return ::lseek(file_.get(), static_cast<off_t>(left), SEEK_CUR) >= 0;
    std::array<char, 65536> buffer;
    while (left > 0) {
        const auto want = static_cast<unsigned>(std::min<std::uint64_t>(left, buffer.size()));
        const int n = ugzread(gz_.get(), buffer.data(), want);
        if (n <= 0)
            return false;
        left -= static_cast<std::uint64_t>(n);
    }
    return true;
}

} // namespace zncctl
