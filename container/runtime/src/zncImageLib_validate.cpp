// zncImageLib_validate.cpp - paths inside an image layout, and checks of the values that describe
// its files.
#include "zncImageLib.hpp"

#include "base/failure.hpp"
#include "base/file.hpp"
#include "cJSON_Additions.h"

#include <cstring>

using znc::kTextBound;

namespace {

constexpr std::int32_t kSchemaVersion = 2;

bool one_of(const char* text, std::initializer_list<const char*> accepted)
{
    for (const char* candidate : accepted)
        if (strEqual(text, candidate) == TRUE)
            return true;
    return false;
}

// Appends "blobs/" and the digest, with the first colon replaced by "/".
STATUS append_blob(char* cursor, char* end, const cJSON* digest)
{
    const char* text = cJSON_GetStringValue(digest);
    char* const name = znc::copy_end(cursor, end, "blobs/");
    if (text == nullptr || znc::copy_end(name, end, text) == end)
        return znc::fail(ENAMETOOLONG);
    char* const colon = text[0] != '\0' ? std::strchr(name + 1, ':') : nullptr;
    if (text[0] == ':' || colon == nullptr)
        return znc::fail(EINVAL);
    *colon = '/';
    return OK;
}

} // namespace

BOOL strEqual(const char* s, const char* p)
{
    const std::size_t len = ::strnlen(s, kTextBound);
    return len == ::strnlen(p, kTextBound) && std::memcmp(s, p, len) == 0 ? TRUE : FALSE;
}

STATUS composeFileName(const char* imagePath, JSON_FILE_TYPE fileType, cJSON* digest,
                       char* fileName, UINT32 fileNameLen)
{
    if (imagePath == nullptr || fileName == nullptr)
        return znc::fail(EINVAL);
    char* const end = fileName + fileNameLen;
    char* const cursor = znc::copy_end(znc::copy_end(fileName, end, imagePath), end, "/");
    const char* leaf = nullptr;
    switch (fileType) {
    case OCILAYOUTJSON:
        leaf = "oci-layout";
        break;
    case INDEXJSON:
        leaf = "index.json";
        break;
    case LAYERJSON:
    case MANIFESTJSON:
    case CONFIGJSON:
        return append_blob(cursor, end, digest);
    default:
        return znc::fail(EINVAL);
    }
    if (znc::copy_end(cursor, end, leaf) == end)
        return znc::fail(ENAMETOOLONG);
    return OK;
}

STATUS validateJsonSchemaVersion(cJSON* schemaVersion)
{
    return cJSON_integer_value(schemaVersion) == kSchemaVersion ? OK : ERROR;
}

STATUS validateJsonMediatype(JSON_FILE_TYPE type, cJSON* value)
{
    const char* text = cJSON_GetStringValue(value);
    if (text == nullptr)
        return ERROR;
    bool accepted = false;
    if (type == INDEXJSON)
        accepted = one_of(text, {"application/vnd.oci.image.index.v1+json",
                                 "application/vnd.oci.image.manifest.v1+json"});
    else if (type == LAYERJSON)
        accepted = one_of(text, {"application/vnd.oci.image.layer.v1.tar",
                                 "application/vnd.oci.image.layer.v1.tar+gzip",
                                 "application/vnd.oci.image.layer.nondistributable.v1.tar",
                                 "application/vnd.oci.image.layer.nondistributable.v1.tar+gzip"});
    else if (type == CONFIGJSON)
        accepted = one_of(text, {"application/vnd.oci.image.config.v1+json"});
    return accepted ? OK : ERROR;
}

STATUS validateJsonFileSize(const char* fileName, cJSON* size)
{
    struct stat st = {};
    const znc::UniqueFd fd = znc::open_regular(fileName, &st);
    if (!fd)
        return ERROR;
    return st.st_size == cJSON_integer64_value(size) ? OK : ERROR;
}

STATUS validateJsonDigest(const char* fileName, cJSON* value)
{
    char buffer[znc::kDigestTextMax];
    bool is_sha512 = false;
    const char* const digits = znc::digest_digits(cJSON_GetStringValue(value), buffer, &is_sha512);
    if (digits == nullptr)
        return ERROR;
    return is_sha512 ? validateSha512(fileName, digits) : validateSha256(fileName, digits);
}

STATUS validateJsonString(const char* str, cJSON* jsonStr)
{
    const char* text = cJSON_GetStringValue(jsonStr);
    return str != nullptr && text != nullptr && strEqual(str, text) == TRUE ? OK : ERROR;
}
