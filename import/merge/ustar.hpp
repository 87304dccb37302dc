// ustar.hpp - creates ustar headers, and checks whether a member can be represented for the
// extractor: up to 155 + 100 bytes of name, 99 of link target, less than 4 GiB of data, and no
// backslash, which the extractor treats as a separator. Used by emit.
#ifndef ZNC_IMPORT_MERGE_USTAR_HPP
#define ZNC_IMPORT_MERGE_USTAR_HPP

#include "import/source/archive.hpp"

#include "format/ustar.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zncimport {

constexpr std::size_t kBlock = znc::kTarBlock;
constexpr std::size_t kTargetMax = sizeof(znc::UstarHeader::linkname) - 1;
using Block = std::array<std::byte, kBlock>;

struct UstarMember {
    std::string path; // without a leading "/"; a directory's ends with "/"
    char type = '0';  // '0', '2', '3', '4', '5', '6'
    std::uint32_t mode = 0;
    std::uint64_t uid = 0;
    std::uint64_t gid = 0;
    std::uint64_t mtime = 0;
    std::uint64_t size = 0;
    std::string target;
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
};

// The type flag of a kind.
char ustar_type(Kind kind);

// Returns why the member cannot be represented, or "".
std::string ustar_problem(const UstarMember& member);
// Returns the header of a member for which ustar_problem() returns "".
Block ustar_header(const UstarMember& member);

} // namespace zncimport

#endif
