// digest.hpp - digests of blobs and streams. Used by image check.
#ifndef ZNC_FRONT_DIGEST_HPP
#define ZNC_FRONT_DIGEST_HPP

#include "format/digest_name.hpp"

#include <memory>
#include <string>
#include <string_view>

#include <mbedtls/md.h>

namespace zncctl {

using znc::is_digest;

class Digest {
  public:
    // `algorithm` is "sha256" or "sha512"; with any other the object is not valid.
    explicit Digest(std::string_view algorithm);
    ~Digest();
    Digest(const Digest&) = delete;
    Digest& operator=(const Digest&) = delete;

    explicit operator bool() const { return valid_; }
    void add(const void* bytes, std::size_t count);
    // The digest, "sha256:..."; may be called only once.
    std::string text();

  private:
    std::string algorithm_;
    mbedtls_md_context_t context_;
    bool valid_ = false;
};

// The digest of `bytes`, "sha256:...".
std::string digest_of(std::string_view algorithm, std::string_view bytes);

// A message if the size of an open blob is not `size`; "" if it is. A `size` of -1 (missing in the
// descriptor) is always reported. To be checked before the blob is read: a huge sparse file would
// take very long to read.
std::string size_problem(int blob, const std::string& digest, double size);

} // namespace zncctl

#endif
