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

// Whether an open blob has another size than is said of it, which costs nothing to see: one that
// its owner made of holes takes years to read. Nothing said (-1) is another size. "" if it has not.
std::string size_problem(int blob, const std::string& digest, std::int64_t size);

} // namespace zncctl

#endif
