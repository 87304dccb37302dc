// blob.hpp - the blobs of image layouts: digests as names for what is made, and whether a blob is
// what its digest and size say.
#ifndef ZNC_FRONT_BLOB_HPP
#define ZNC_FRONT_BLOB_HPP

#include "format/digest.hpp"

#include <cstdint>
#include <string>
#include <string_view>

namespace zncctl {

// "sha256:...". Throws std::runtime_error when it cannot be computed.
std::string digest_text(znc::Digest& digest);
std::string digest_of(std::string_view bytes);

// Whether bytes in memory have that digest; false as well for one of an unknown algorithm.
bool has_digest(std::string_view bytes, std::string_view digest);

// A message if the size of an open blob differs from `size` (-1, not given, counts as different),
// else "". Checked before reading, because a huge sparse file would take very long to hash.
std::string size_problem(int blob, const std::string& digest, std::int64_t size);

} // namespace zncctl

#endif
