// digest_name.hpp - digests in the notation of OCI images. To be checked before a digest is used as
// a file name.
#ifndef ZNC_FORMAT_DIGEST_NAME_HPP
#define ZNC_FORMAT_DIGEST_NAME_HPP

#include <string_view>

namespace znc {

// Whether `text` is "sha256:" followed by 64 lower-case hexadecimal digits, or "sha512:" followed
// by 128.
bool is_digest(std::string_view text);

} // namespace znc

#endif
