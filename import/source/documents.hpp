// documents.hpp - how the documents of an image are made: names that the format gives, digests, and
// JSON trees that are built piece by piece. Used by image_config and layout_writer.
#ifndef ZNC_IMPORT_SOURCE_DOCUMENTS_HPP
#define ZNC_IMPORT_SOURCE_DOCUMENTS_HPP

#include "front/blob.hpp"
#include "front/json.hpp"

#include <new>

namespace zncimport {

using zncctl::kRefName;
inline constexpr const char* kManifestType = "application/vnd.oci.image.manifest.v1+json";

using zncctl::digest_of;

// Takes over what cJSON made, if there was memory for it.
inline zncctl::Json made(cJSON* item)
{
    if (item == nullptr)
        throw std::bad_alloc();
    return zncctl::Json(item);
}

// In place of the member of that name, or behind the others.
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
