#include "tarforge.hpp"

#include <algorithm>
#include <array>
#include <numeric>
#include <stdexcept>

#include <zlib.h>

namespace tarforge {

namespace {

constexpr std::array<std::size_t, 17> kLengths = {100, 8, 8,  8,  12, 12, 8,   1, 100,
                                                  6,   2, 32, 32, 8,  8,  155, 12};

std::string octal_digits(std::uint64_t value, std::size_t width)
{
    std::string digits(width, '0');
    for (std::size_t at = width; at-- > 0; value /= 8)
        digits[at] = static_cast<char>('0' + value % 8);
    return digits;
}

std::string little_endian(std::uint32_t value, unsigned bytes)
{
    std::string text;
    for (unsigned i = 0; i < bytes; ++i)
        text.push_back(static_cast<char>(value >> (8 * i) & 0xff));
    return text;
}

int byte_sum(const std::string& bytes, bool asSigned)
{
    return std::accumulate(bytes.begin(), bytes.end(), 0, [asSigned](int sum, char c) {
        return sum + (asSigned ? static_cast<signed char>(c) : static_cast<unsigned char>(c));
    });
}

} // namespace

Extent extent(Field field)
{
    const auto index = static_cast<std::size_t>(field);
    return {std::accumulate(kLengths.begin(), kLengths.begin() + static_cast<std::ptrdiff_t>(index),
                            std::size_t{0}),
            kLengths.at(index)};
}

Header::Header() : bytes_(kBlock, '\0')
{
    mode(0644).octal(Field::kUid, 0).octal(Field::kGid, 0).size(0).mtime(0).type('0');
    raw(Field::kMagic, "ustar").raw(Field::kVersion, "00");
}

Header::Header(std::string_view name, char type) : Header()
{
    raw(Field::kName, name);
    this->type(type);
}

Header& Header::raw(Field field, std::string_view bytes, char fill)
{
    const auto [offset, length] = extent(field);
    std::string text(bytes.substr(0, length));
    text.resize(length, fill);
    bytes_.replace(offset, length, text);
    return *this;
}

Header& Header::octal(Field field, std::uint64_t value)
{
    return raw(field, octal_digits(value, extent(field).length - 1));
}

Header& Header::octal_unterminated(Field field, std::uint64_t value)
{
    return raw(field, octal_digits(value, extent(field).length));
}

Header& Header::base256(Field field, std::int64_t value)
{
    std::string text(extent(field).length, value < 0 ? '\xff' : '\0');
    for (std::size_t at = text.size(); at-- > 0 && text.size() - at <= sizeof value; value >>= 8)
        text[at] = static_cast<char>(value & 0xff);
    text[0] = static_cast<char>(static_cast<unsigned char>(text[0]) | 0x80);
    return raw(field, text);
}

Header& Header::checksum(std::string_view bytes)
{
    ownChecksum_ = true;
    return raw(Field::kChksum, bytes);
}

Header& Header::checksum_off_by(int delta)
{
    delta_ = delta;
    return *this;
}

Header& Header::checksum_signed()
{
    signed_ = true;
    return *this;
}

std::string Header::block() const
{
    if (ownChecksum_)
        return bytes_;
    Header summed = *this;
    summed.raw(Field::kChksum, "        ");
    const int sum = byte_sum(summed.bytes_, signed_) + delta_;
    summed.raw(Field::kChksum, octal_digits(static_cast<std::uint64_t>(sum), 6) + '\0' + ' ');
    return summed.bytes_;
}

Archive& Archive::file(std::string_view name, std::string_view content, unsigned mode,
                       std::uint64_t mtime)
{
    return member(Header(name).size(content.size()).mode(mode).mtime(mtime), content);
}

Archive& Archive::dir(std::string_view name, unsigned mode, std::uint64_t mtime)
{
    return member(Header(name, '5').mode(mode).mtime(mtime));
}

Archive& Archive::symlink(std::string_view name, std::string_view target)
{
    return member(Header(name, '2').mode(0777).target(target));
}

Archive& Archive::member(const Header& header, std::string_view content)
{
    bytes_ += header.block();
    bytes_ += content;
    bytes_.resize((bytes_.size() + kBlock - 1) / kBlock * kBlock, '\0');
    return *this;
}

Archive& Archive::raw(std::string_view bytes)
{
    bytes_ += bytes;
    return *this;
}

Archive& Archive::end(unsigned zeroBlocks)
{
    bytes_.append(zeroBlocks * kBlock, '\0');
    return *this;
}

std::uint32_t crc32(std::string_view bytes)
{
    return static_cast<std::uint32_t>(
        ::crc32_z(0, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()));
}

namespace {

std::string run_deflate(std::string_view bytes, int level, int strategy, int flush)
{
    z_stream s{};
    constexpr int kRaw = -15;
    constexpr int kMemory = 8;
    constexpr std::size_t kRoomForFlush = 64;
    if (deflateInit2(&s, level, Z_DEFLATED, kRaw, kMemory, strategy) != Z_OK)
        throw std::runtime_error("deflateInit2");
    std::string out(deflateBound(&s, bytes.size()) + kRoomForFlush, '\0');
    std::string in(bytes);
    s.next_in = reinterpret_cast<unsigned char*>(in.data());
    s.avail_in = static_cast<uInt>(in.size());
    s.next_out = reinterpret_cast<unsigned char*>(out.data());
    s.avail_out = static_cast<uInt>(out.size());
    const int rc = ::deflate(&s, flush);
    out.resize(out.size() - s.avail_out);
    deflateEnd(&s);
    if (rc != (flush == Z_FINISH ? Z_STREAM_END : Z_OK) || s.avail_in != 0)
        throw std::runtime_error("deflate");
    return out;
}

} // namespace

std::string deflate(std::string_view bytes, int level, int strategy)
{
    return run_deflate(bytes, level, strategy, Z_FINISH);
}

std::string deflate_part(std::string_view bytes, int level)
{
    return run_deflate(bytes, level, Z_DEFAULT_STRATEGY, Z_FULL_FLUSH);
}

std::string gzip(std::string_view bytes, const Gzip& options)
{
    const unsigned flags = options.flags | (options.headerCrc ? 0x02U : 0U) |
                           (options.extra ? 0x04U : 0U) | (options.name ? 0x08U : 0U) |
                           (options.comment ? 0x10U : 0U);
    std::string out = "\x1f\x8b";
    out.push_back(static_cast<char>(options.method));
    out.push_back(static_cast<char>(flags));
    out.append(4, '\0'); // time
    out += '\0';         // extra flags
    out += '\x03';       // operating system: Unix
    if (options.extra)
        out += little_endian(static_cast<std::uint32_t>(options.extra->size()), 2) + *options.extra;
    if (options.name)
        out += *options.name + '\0';
    if (options.comment)
        out += *options.comment + '\0';
    if (options.headerCrc)
        out += little_endian(crc32(out) & 0xffff, 2);
    out += options.body ? *options.body : deflate(bytes, options.level, options.strategy);
    out += little_endian(options.crc.value_or(crc32(bytes)), 4);
    out += little_endian(options.size.value_or(static_cast<std::uint32_t>(bytes.size())), 4);
    return out + options.behind;
}

} // namespace tarforge
