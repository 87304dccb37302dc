#include "ustar.hpp"

#include <algorithm>
#include <cstring>
#include <span>
#include <string_view>

namespace zncimport {
namespace {

// The header as stored in the archive. Numbers are octal digits. Strings that fill their field have
// no NUL.
struct Header {
    std::array<char, 100> name;
    std::array<char, 8> mode;
    std::array<char, 8> uid;
    std::array<char, 8> gid;
    std::array<char, 12> size;
    std::array<char, 12> mtime;
    std::array<char, 8> checksum;
    char type;
    std::array<char, 100> target;
    std::array<char, 6> magic;
    std::array<char, 2> version;
    std::array<char, 32> user;
    std::array<char, 32> group;
    std::array<char, 8> major;
    std::array<char, 8> minor;
    std::array<char, 155> prefix;
    std::array<char, 12> padding;
};
static_assert(sizeof(Header) == kBlock);

constexpr std::size_t kNameMax = sizeof(Header::name);
constexpr std::size_t kPrefixMax = sizeof(Header::prefix);
constexpr std::uint64_t kSizeMax = 0xffffffff; // the extractor uses 32-bit sizes

struct Name {
    std::string_view prefix;
    std::string_view name;
};

// Splits a path into prefix and name at the first "/" after which the name fits. A path that is too
// long for both fields yields a name that is too long. The final "/" of a directory is part of the
// name.
Name split(std::string_view path)
{
    if (path.size() <= kNameMax)
        return {{}, path};
    const std::size_t slash = path.find('/', path.size() - kNameMax - 1);
    if (slash == path.npos || slash + 1 == path.size())
        return {{}, path};
    return {path.substr(0, slash), path.substr(slash + 1)};
}

// Returns whether the number fits into a field of this size, whose last byte is NUL.
bool fits(std::uint64_t number, std::size_t field)
{
    return number >> (3 * (field - 1)) == 0;
}

std::string component_problem(std::string_view path)
{
    if (!path.empty() && path.back() == '/')
        path.remove_suffix(1);
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string_view component = path.substr(start, end - start);
        if (component.empty())
            return "its name has an empty component";
        if (component == "." || component == "..")
            return "its name has a component \".\" or \"..\"";
        start = end + 1;
    }
    return "";
}

std::string name_problem(const UstarMember& member)
{
    if (member.path.find('\0') != std::string::npos)
        return "its name contains a NUL";
    if (member.path.find('\\') != std::string::npos)
        return "its name contains a backslash";
    if (std::string problem = component_problem(member.path); !problem.empty())
        return problem;
    if ((member.path.back() == '/') != (member.type == '5'))
        return "the name of a directory, and no other name, must end with a slash";
    const Name parts = split(member.path);
    if (parts.name.size() > kNameMax || parts.prefix.size() > kPrefixMax)
        return "its name is too long, or has no slash where it could be divided";
    return "";
}

std::string target_problem(const UstarMember& member)
{
    if (member.type != '2')
        return member.target.empty() ? "" : "only a symbolic link has a target";
    if (member.target.empty())
        return "its target is empty";
    if (member.target.find('\0') != std::string::npos)
        return "its target contains a NUL";
    return member.target.size() > kTargetMax ? "its target is longer than 99 bytes" : "";
}

std::string number_problem(const UstarMember& member)
{
    if (member.size > kSizeMax)
        return "it has 4 GiB or more";
    if (member.size != 0 && member.type != '0')
        return "only a file has data";
    if (member.mode > 07777)
        return "its mode has more than the permission bits";
    if (!fits(member.uid, sizeof(Header::uid)) || !fits(member.gid, sizeof(Header::gid)))
        return "its owner's number is too large";
    if (!fits(member.mtime, sizeof(Header::mtime)))
        return "its time is too late";
    if (!fits(member.major, sizeof(Header::major)) || !fits(member.minor, sizeof(Header::minor)))
        return "its device number is too large";
    return "";
}

void put_text(std::span<char> field, std::string_view text)
{
    std::copy(text.begin(), text.end(), field.begin());
}

// Writes octal digits with leading zeros; the last byte stays NUL.
void put_number(std::span<char> field, std::uint64_t number)
{
    for (std::size_t i = field.size() - 1; i-- > 0; number >>= 3U)
        field[i] = static_cast<char>('0' + (number & 7U));
}

// The checksum is the sum of all bytes, with its own field counted as spaces. It is stored as six
// digits, a NUL and a space.
void put_checksum(Header& header)
{
    header.checksum.fill(' ');
    Block bytes{};
    std::memcpy(bytes.data(), &header, kBlock);
    std::uint64_t sum = 0;
    for (const std::byte byte : bytes)
        sum += static_cast<unsigned char>(byte);
    header.checksum[6] = '\0';
    put_number(std::span(header.checksum).first(7), sum);
}

} // namespace

char ustar_type(Kind kind)
{
    switch (kind) {
    case Kind::kFile:
        return '0';
    case Kind::kSymlink:
        return '2';
    case Kind::kCharDevice:
        return '3';
    case Kind::kBlockDevice:
        return '4';
    case Kind::kDirectory:
        return '5';
    case Kind::kFifo:
        return '6';
    case Kind::kHardlink:
    case Kind::kOther:
        break;
    }
    return '?'; // ustar_problem() refuses this type
}

std::string ustar_problem(const UstarMember& member)
{
    if (std::string_view("023456").find(member.type) == std::string_view::npos)
        return "its type cannot be written";
    for (const auto& problem : {name_problem, target_problem, number_problem})
        if (std::string text = problem(member); !text.empty())
            return text;
    return "";
}

Block ustar_header(const UstarMember& member)
{
    Header header{};
    const Name parts = split(member.path);
    put_text(header.name, parts.name);
    put_text(header.prefix, parts.prefix);
    put_number(header.mode, member.mode);
    put_number(header.uid, member.uid);
    put_number(header.gid, member.gid);
    put_number(header.size, member.size);
    put_number(header.mtime, member.mtime);
    header.type = member.type;
    put_text(header.target, member.target);
    put_text(header.magic, "ustar"); // including its NUL
    put_text(header.version, "00");
    put_number(header.major, member.major);
    put_number(header.minor, member.minor);
    put_checksum(header);
    Block block{};
    std::memcpy(block.data(), &header, kBlock);
    return block;
}

} // namespace zncimport
