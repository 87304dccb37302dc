#include "ustar.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <string_view>

namespace zncimport {
namespace {

constexpr std::size_t kNameMax = sizeof(znc::UstarHeader::name);
constexpr std::size_t kPrefixMax = sizeof(znc::UstarHeader::prefix);

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

// A number in a header: its field, its largest value, and the problem to report for a larger one.
struct Number {
    std::span<char> field;
    std::uint64_t value;
    std::uint64_t most;
    const char* problem;
};

std::array<Number, 7> numbers(const UstarMember& member, znc::UstarHeader& header)
{
    constexpr std::uint64_t kSeven = znc::tar_octal_max(sizeof header.uid);
    constexpr std::uint64_t kEleven = znc::tar_octal_max(sizeof header.mtime);
    constexpr const char* kOwner = "its owner's number is too large";
    constexpr const char* kDevice = "its device number is too large";
    return {{{header.size, member.size, znc::kTarSizeMax, "it has 4 GiB or more"},
             {header.mode, member.mode, 07777, "its mode has more than the permission bits"},
             {header.uid, member.uid, kSeven, kOwner},
             {header.gid, member.gid, kSeven, kOwner},
             {header.mtime, member.mtime, kEleven, "its time is too late"},
             {header.major, member.major, kSeven, kDevice},
             {header.minor, member.minor, kSeven, kDevice}}};
}

std::string number_problem(const UstarMember& member)
{
    znc::UstarHeader unused{};
    for (const Number& number : numbers(member, unused))
        if (number.value > number.most)
            return number.problem;
    return member.size != 0 && member.type != '0' ? "only a file has data" : "";
}

void put_text(std::span<char> field, std::string_view text)
{
    std::copy(text.begin(), text.end(), field.begin());
}

// The checksum is stored as six digits, a NUL and a space.
void put_checksum(znc::UstarHeader& header)
{
    const std::span<char> field(header.chksum);
    std::fill(field.begin(), field.end(), ' ');
    const std::uint32_t sum =
        znc::tar_sum(&header, sizeof header); // the padding of the block is zero
    field[6] = '\0';
    znc::tar_put_octal(field.first(7), sum);
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
    znc::UstarHeader header{};
    const Name parts = split(member.path);
    put_text(header.name, parts.name);
    put_text(header.prefix, parts.prefix);
    for (const Number& number : numbers(member, header))
        znc::tar_put_octal(number.field, number.value);
    header.linkflag = member.type;
    put_text(header.linkname, member.target);
    put_text(header.indicator, std::string_view(znc::kUstarMagic, sizeof znc::kUstarMagic));
    put_text(header.version, std::string_view(znc::kUstarVersion, sizeof znc::kUstarVersion));
    put_checksum(header);
    Block block{};
    std::memcpy(block.data(), &header, sizeof header);
    return block;
}

} // namespace zncimport
