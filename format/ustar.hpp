// ustar.hpp - the header of a tar archive's member and the rules for its numbers, for whoever reads
// or writes archives. Left out: names, which the extractor and the importer treat differently.
#ifndef ZNC_FORMAT_USTAR_HPP
#define ZNC_FORMAT_USTAR_HPP

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace znc {

// Texts fill their fields with or without a NUL at the end; numbers are octal text.
struct UstarHeader {
    char name[100];
    char mode[8];
    char uid[8];
    char gid[8];
    char size[12];
    char mtime[12];
    char chksum[8];
    char linkflag;
    char linkname[100];
    char indicator[6];
    char version[2];
    char uname[32];
    char gname[32];
    char major[8];
    char minor[8];
    char prefix[155];
};
inline constexpr std::size_t kTarBlock = 512; // a header is padded to one
static_assert(sizeof(UstarHeader) == 500 && alignof(UstarHeader) == 1);

inline constexpr char kUstarMagic[sizeof(UstarHeader::indicator)] = "ustar"; // NUL included
inline constexpr char kUstarVersion[] = {'0', '0'};
inline constexpr std::uint64_t kTarSizeMax = UINT32_MAX; // the extractor counts in 32 bits

// Whether a header's name begins with its prefix: other formats use those bytes for something else.
inline bool tar_has_prefix(const UstarHeader& header) noexcept
{
    return header.prefix[0] != '\0' &&
           std::string_view(header.indicator, sizeof header.indicator) ==
               std::string_view(kUstarMagic, sizeof kUstarMagic);
}

// What a field holds up to its first NUL.
template <std::size_t N> std::string_view tar_text(const char (&field)[N]) noexcept
{
    const std::string_view whole(field, N);
    return whole.substr(0, whole.find('\0'));
}

// An octal number as scanf reads it ("%o"): leading blanks, a sign, digits up to the first other
// character or the end of the field. False when there is none; `value` is then untouched.
inline bool tar_octal(std::string_view field, unsigned long& value) noexcept
{
    std::size_t at = 0;
    while (at < field.size() && (field[at] == ' ' || (field[at] >= '\t' && field[at] <= '\r')))
        ++at;
    const bool negative = at < field.size() && field[at] == '-';
    if (at < field.size() && (field[at] == '-' || field[at] == '+'))
        ++at;
    const std::size_t digits = at;
    unsigned long n = 0;
    for (; at < field.size() && field[at] >= '0' && field[at] <= '7'; ++at)
        n = n * 8 + static_cast<unsigned long>(field[at] - '0');
    if (at == digits)
        return false;
    value = negative ? 0 - n : n;
    return true;
}
template <std::size_t N> bool tar_octal(const char (&field)[N], unsigned long& value) noexcept
{
    return tar_octal(std::string_view(field, N), value);
}

// The largest number that fits into a field of so many bytes, whose last one stays NUL.
constexpr std::uint64_t tar_octal_max(std::size_t field) noexcept
{
    return (std::uint64_t{1} << (3 * (field - 1))) - 1;
}

// Writes such a number with leading zeros.
inline void tar_put_octal(std::span<char> field, std::uint64_t number) noexcept
{
    for (std::size_t i = field.size() - 1; i-- > 0; number >>= 3U)
        field[i] = static_cast<char>('0' + (number & 7U));
}

// The sum of unsigned bytes. A header's own sum is that of its block with blanks in `chksum`.
inline std::uint32_t tar_sum(const void* bytes, std::size_t count) noexcept
{
    std::uint32_t sum = 0;
    for (const unsigned char byte : std::span(static_cast<const unsigned char*>(bytes), count))
        sum += byte;
    return sum;
}

} // namespace znc

#endif
