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
    // The algorithm as digests name it. One that is not known is not valid.
    explicit Digest(std::string_view algorithm);
    ~Digest();
    Digest(const Digest&) = delete;
    Digest& operator=(const Digest&) = delete;

    explicit operator bool() const { return valid_; }
    void add(const void* bytes, std::size_t count);
    // "sha256:..."; once.
    std::string text();

  private:
    std::string algorithm_;
    mbedtls_md_context_t context_;
    bool valid_ = false;
};

// The digest of some bytes, "sha256:...".
std::string digest_of(std::string_view algorithm, std::string_view bytes);

// Whether an open blob has another size than is said of it, which costs nothing to see: one that
// its owner made of holes takes years to read. Nothing said (-1) is another size. "" if it has not.
std::string size_problem(int blob, const std::string& digest, double size);

} // namespace zncctl

#endif
