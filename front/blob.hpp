// blob.hpp - the blobs of image layouts: computing digests, and checking a blob against its digest
// and size.
#ifndef ZNC_FRONT_BLOB_HPP
#define ZNC_FRONT_BLOB_HPP

#include "format/digest.hpp"

#include <cstdint>
#include <string>
#include <string_view>

namespace zncctl {

// The digest as text, "sha256:...". Throws std::runtime_error if it could not be computed.
std::string digest_text(znc::Digest& digest);
std::string digest_of(std::string_view bytes);

// Whether bytes in memory have this digest; false also if its algorithm is unknown.
bool has_digest(std::string_view bytes, std::string_view digest);

// A message if the size of an open blob differs from `size` (-1, not given, counts as different),
// else "". Checked before reading, because a huge sparse file would take very long to hash.
std::string size_problem(int blob, const std::string& digest, std::int64_t size);

} // namespace zncctl

#endif
