// ustar.hpp - builds the header of a ustar member and checks that the member can be represented in
// a form that the extractor of the library reads: at most 155 + 100 bytes of name and 99 of link
// target, less than 4 GiB of data, and no backslash, which the extractor takes for a separator.
// Used by emit.
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

// The type character of a kind.
char ustar_type(Kind kind);

// Why the member cannot be written, or "".
std::string ustar_problem(const UstarMember& member);
// The header of a member for which ustar_problem() returned "".
Block ustar_header(const UstarMember& member);

} // namespace zncimport

#endif
