// documents.hpp - helpers for building the documents of an image: names defined by the format,
// digests and JSON trees. Used by image_config and layout_writer.
#ifndef ZNC_IMPORT_SOURCE_DOCUMENTS_HPP
#define ZNC_IMPORT_SOURCE_DOCUMENTS_HPP

#include "front/digest.hpp"
#include "front/json.hpp"

#include <new>

namespace zncimport {

using zncctl::kRefName;
inline constexpr const char* kManifestType = "application/vnd.oci.image.manifest.v1+json";

// Returns the digest of `bytes` as "sha256:...".
inline std::string digest_of(std::string_view bytes)
{
    return zncctl::digest_of("sha256", bytes);
}

// Takes ownership of a new cJSON item; throws if it is null because memory ran out.
inline zncctl::Json made(cJSON* item)
{
    if (item == nullptr)
        throw std::bad_alloc();
    return zncctl::Json(item);
}

// Replaces the member of that name, or appends a new one.
inline void put(cJSON* object, const char* key, zncctl::Json item)
{
    const bool there = zncctl::member(object, key) != nullptr;
    const auto done = there ? cJSON_ReplaceItemInObjectCaseSensitive(object, key, item.get())
                            : cJSON_AddItemToObject(object, key, item.get());
    if (done == 0)
        throw std::bad_alloc();
    static_cast<void>(item.release());
}

inline void put_text(cJSON* object, const char* key, const std::string& text)
{
    put(object, key, made(cJSON_CreateString(text.c_str())));
}

inline void append(cJSON* array, zncctl::Json item)
{
    if (cJSON_AddItemToArray(array, item.get()) == 0)
        throw std::bad_alloc();
    static_cast<void>(item.release());
}

// {"mediaType": ..., "digest": ..., "size": ...}
inline zncctl::Json descriptor(const char* type, const std::string& digest, std::uint64_t size)
{
    zncctl::Json object = made(cJSON_CreateObject());
    put_text(object.get(), "mediaType", type);
    put_text(object.get(), "digest", digest);
    zncctl::add_number(object.get(), "size", static_cast<double>(size));
    return object;
}

} // namespace zncimport

#endif
