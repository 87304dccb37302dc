// digest_name.hpp - digests as images write them. Used wherever one becomes the name of a file.
#ifndef ZNC_FORMAT_DIGEST_NAME_HPP
#define ZNC_FORMAT_DIGEST_NAME_HPP

#include <string_view>

namespace znc {

// "sha256:" and 64 hexadecimal digits in lower case, or "sha512:" and 128: what may become the name
// of a file.
bool is_digest(std::string_view text);

} // namespace znc

#endif
