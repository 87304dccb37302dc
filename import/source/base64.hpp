// base64.hpp - Base64 (RFC 4648, section 4), the encoding of data that is embedded in a descriptor.
#ifndef ZNC_IMPORT_SOURCE_BASE64_HPP
#define ZNC_IMPORT_SOURCE_BASE64_HPP

#include <optional>
#include <string>
#include <string_view>

namespace zncimport {

// Nullopt unless the text consists of complete groups of four Base64 characters, the last one
// padded.
std::optional<std::string> decode_base64(std::string_view text);

} // namespace zncimport

#endif
