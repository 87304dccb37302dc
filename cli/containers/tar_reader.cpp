#include "tar_reader.hpp"

#include "format/ustar.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "front/words.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <limits>
#include <stdexcept>
#include <unistd.h>

namespace zncctl {
namespace {

constexpr std::uint64_t kExtendedMax = std::uint64_t{1} << 20U;
constexpr std::uint64_t kDataMax = std::numeric_limits<std::int64_t>::max() - znc::kTarBlock;
constexpr const char* kDamaged = "the archive is damaged";
constexpr const char* kNone = "it is not a tar archive; one that is compressed must be "
                              "decompressed before";

[[noreturn]] void fail(const std::string& path, const char* problem)
{
    throw std::runtime_error(
        fmt::format("{}: {}", printable(first_characters(path, 100)), problem));
}

// A number in a header: octal or, if the first bit is set (GNU tar), binary.
template <std::size_t N> std::int64_t number_of(const char (&field)[N])
{
    constexpr unsigned kBinary = 0x80;
    constexpr unsigned kNegative = 0x40;
    const auto first = static_cast<unsigned char>(field[0]);
    if ((first & kBinary) == 0) {
        unsigned long value = 0;
        static_cast<void>(znc::tar_octal(field, value)); // an empty field is 0
        return static_cast<std::int64_t>(value);
    }
    const bool negative = (first & kNegative) != 0;
    std::uint64_t value = negative ? ~std::uint64_t{0} : 0;
    constexpr std::size_t kBytes = std::min(N - 1, sizeof value);
    for (std::size_t i = N - kBytes; i < N; i++)
        value = (value << 8U) | static_cast<unsigned char>(field[i]);
    return static_cast<std::int64_t>(value);
}

bool has_right_sum(const znc::UstarHeader& header)
{
    znc::UstarHeader blank = header;
    std::fill(std::begin(blank.chksum), std::end(blank.chksum), ' ');
    unsigned long sum = 0;
    return znc::tar_octal(header.chksum, sum) && sum == znc::tar_sum(&blank, sizeof blank);
}

// The records "LENGTH KEY=VALUE\n" of an extended header.
template <class Map> void parse_records(std::string_view text, Map& records)
{
    while (!text.empty()) {
        const std::size_t blank = std::min(text.find(' '), text.size());
        const auto length = to_number<std::size_t>(std::string(text.substr(0, blank)));
        const std::size_t equals = text.find('=', blank);
        if (!length || *length > text.size() || equals == text.npos || *length < equals + 2 ||
            text[*length - 1] != '\n')
            throw std::runtime_error(kDamaged);
        records[std::string(text.substr(blank + 1, equals - blank - 1))] =
            text.substr(equals + 1, *length - equals - 2);
        text.remove_prefix(*length);
    }
}

// A number of an extended header, without the fraction of a time.
template <class Map>
std::int64_t number_in(const Map& extended, std::string_view key, std::int64_t otherwise)
{
    const auto found = extended.find(key);
    if (found == extended.end())
        return otherwise;
    const auto number = to_number<std::int64_t>(found->second.substr(0, found->second.find('.')));
    if (!number)
        throw std::runtime_error(kDamaged);
    return *number;
}

template <class Map>
std::string text_in(const Map& extended, std::string_view key, std::string otherwise)
{
    const auto found = extended.find(key);
    return found != extended.end() ? found->second : std::move(otherwise);
}

// A string of GNU tar ends with a NUL.
std::string without_nul(std::string text)
{
    text.resize(std::min(text.find('\0'), text.size()));
    return text;
}

std::optional<TarType> type_of(char flag)
{
    switch (flag) {
    case '0':
    case '\0':
    case '7':
        return TarType::kFile;
    case '1':
    case '2':
    case '5':
    case '6':
        return static_cast<TarType>(flag);
    default:
        return std::nullopt;
    }
}

} // namespace

std::optional<TarMember> TarReader::next()
{
    Extended extended;
    znc::UstarHeader header{};
    for (skip_data(); read_block(header); skip_data()) {
        const std::int64_t size = number_of(header.size);
        const bool is_text = header.linkflag == 'x' || header.linkflag == 'L' ||
                             header.linkflag == 'K' || header.linkflag == 'g';
        if (!is_text)
            return member_of(header, extended);
        if (size < 0 || static_cast<std::uint64_t>(size) > kExtendedMax)
            throw std::runtime_error(kDamaged);
        const std::string text = read_text(static_cast<std::uint64_t>(size));
        if (header.linkflag == 'x')
            parse_records(text, extended);
        else if (header.linkflag == 'L')
            extended["path"] = without_nul(text);
        else if (header.linkflag == 'K')
            extended["linkpath"] = without_nul(text);
    }
    return std::nullopt;
}

TarMember TarReader::member_of(const znc::UstarHeader& header, const Extended& extended)
{
    std::string path(znc::tar_text(header.name));
    if (znc::tar_has_prefix(header))
        path = fmt::format("{}/{}", znc::tar_text(header.prefix), path);
    TarMember member;
    member.path = text_in(extended, "path", std::move(path));
    const auto type = type_of(header.linkflag);
    if (!type || extended.contains("GNU.sparse.realsize") || extended.contains("GNU.sparse.size"))
        fail(member.path, "it is a device or a sparse file, which is not extracted");
    member.type = *type;
    if (member.type == TarType::kFile && member.path.ends_with('/')) // V7 archives
        member.type = TarType::kDirectory;
    member.target = text_in(extended, "linkpath", std::string(znc::tar_text(header.linkname)));
    if (member.path.find('\0') != std::string::npos ||
        member.target.find('\0') != std::string::npos)
        fail(member.path, kDamaged);
    member.mode = static_cast<std::uint32_t>(number_of(header.mode)) & 07777U;
    member.uid = static_cast<std::uint64_t>(number_in(extended, "uid", number_of(header.uid)));
    member.gid = static_cast<std::uint64_t>(number_in(extended, "gid", number_of(header.gid)));
    member.mtime = number_in(extended, "mtime", number_of(header.mtime));
    const std::int64_t size = number_in(extended, "size", number_of(header.size));
    if (size < 0 || static_cast<std::uint64_t>(size) > kDataMax)
        fail(member.path, kDamaged);
    member.size = member.type == TarType::kFile ? static_cast<std::uint64_t>(size) : 0;
    left_ = member.size;
    padding_ = (znc::kTarBlock - left_ % znc::kTarBlock) % znc::kTarBlock;
    return member;
}

// False at the end of the archive: a block of zeros, or of the input.
bool TarReader::read_block(znc::UstarHeader& header)
{
    std::array<char, znc::kTarBlock> block{};
    std::size_t got = 0;
    while (got < block.size()) {
        const ssize_t n = ::read(fd_, block.data() + got, block.size() - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw_error("the archive");
        if (n == 0)
            break;
        got += static_cast<std::size_t>(n);
    }
    if (got == 0 && started_)
        return false;
    std::memcpy(&header, block.data(), sizeof header);
    const bool zeros = std::all_of(block.begin(), block.end(), [](char c) { return c == '\0'; });
    if (got < block.size() || (!zeros && !has_right_sum(header)))
        throw std::runtime_error(started_ ? kDamaged : kNone);
    started_ = true;
    return !zeros;
}

void TarReader::read(char* to, std::size_t size)
{
    while (size > 0) {
        const ssize_t n = ::read(fd_, to, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw_error("the archive");
        if (n == 0)
            throw std::runtime_error("the archive ends in the middle of a member");
        to += n;
        size -= static_cast<std::size_t>(n);
    }
}

std::string TarReader::read_text(std::uint64_t size)
{
    std::string text(static_cast<std::size_t>(size), '\0');
    read(text.data(), text.size());
    left_ = 0;
    padding_ = (znc::kTarBlock - size % znc::kTarBlock) % znc::kTarBlock;
    return text;
}

void TarReader::copy_data(int to)
{
    std::array<char, 65536> buffer{};
    while (left_ > 0) {
        const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(left_, buffer.size()));
        read(buffer.data(), part);
        left_ -= part;
        if (to >= 0 && !write_all(to, {buffer.data(), part}))
            throw_error("a file of the archive");
    }
}

void TarReader::finish()
{
    constexpr std::size_t kMost = std::size_t{1} << 20U;
    std::array<char, 65536> buffer{};
    for (std::size_t got = 0; got < kMost;) {
        const ssize_t n = ::read(fd_, buffer.data(), buffer.size());
        if (n == 0 || (n < 0 && errno != EINTR))
            return;
        got += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
}

void TarReader::skip_data()
{
    copy_data(-1);
    std::array<char, znc::kTarBlock> block{};
    read(block.data(), static_cast<std::size_t>(padding_));
    padding_ = 0;
}

} // namespace zncctl
