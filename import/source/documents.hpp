// documents.hpp - helpers for building the documents of an image: names defined by the format and
// digests.
// Used by image_config and layout_writer.
#ifndef ZNC_IMPORT_SOURCE_DOCUMENTS_HPP
#define ZNC_IMPORT_SOURCE_DOCUMENTS_HPP

#include "front/blob.hpp"
#include "front/json.hpp"

#include <nlohmann/json.hpp>

namespace zncimport {

using zncctl::kRefName;
inline constexpr const char* kManifestType = "application/vnd.oci.image.manifest.v1+json";

using zncctl::digest_of;

inline zncctl::Json descriptor(const char* type, const std::string& digest, std::uint64_t size)
{
    return {{"mediaType", type}, {"digest", digest}, {"size", size}};
}

} // namespace zncimport

#endif
