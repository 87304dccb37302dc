#include "blob.hpp"

#include "files.hpp"

#include "base/owned.hpp"

#include <fmt/format.h>
#include <stdexcept>
#include <sys/stat.h>

namespace zncctl {

std::string digest_text(znc::Digest& digest)
{
    const znc::DigestText text = digest.text();
    if (!text)
        throw std::runtime_error("a digest cannot be computed");
    return std::string(text.view());
}

std::string digest_of(std::string_view bytes)
{
    znc::Digest digest;
    digest.add(bytes.data(), bytes.size());
    return digest_text(digest);
}

bool has_digest(std::string_view bytes, std::string_view digest)
{
    const auto algorithm = znc::digest_algorithm(digest);
    if (!algorithm)
        return false;
    znc::Digest computed(*algorithm);
    computed.add(bytes.data(), bytes.size());
    return computed.text().view() == digest;
}

std::string size_problem(int blob, const std::string& digest, std::int64_t size)
{
    struct stat st = {};
    if (::fstat(blob, &st) != 0)
        return fmt::format("blob {}: {}", digest, error_text());
    if (size < 0)
        return fmt::format("the size of blob {} is missing", digest);
    if (st.st_size == size)
        return "";
    return fmt::format("blob {} has {} bytes, not {}", digest, st.st_size, size);
}

} // namespace zncctl
