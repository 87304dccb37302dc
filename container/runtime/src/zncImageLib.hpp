// zncImageLib.hpp - the in-memory form of an OCI image layout and the operations on it. Shared by
// the source files of the image module: the reader (_layout, _validate), the bundle creation
// (zncImageLib, _store), the configuration writer (_config) and the inspection (_inspect).
//
// Order of calls: zncImageInfoCreate, set `ociPath`, zncImageParse, store the result of
// zncImageFindManifest in `manifestsIndex`, zncImageInfoDelete. An image must not be used by two
// threads at the same time. Functions that zncontainer.h and zncprotocol.h declare are not repeated
// here.
#ifndef ZNCIMAGELIB_HPP
#define ZNCIMAGELIB_HPP

#include "base/failure.hpp"
#include "zncDigest.hpp"
#include "zncOwned.hpp"
#include "zncprotocol.h"

#include <atomic>
#include <string_view>

namespace znc {
struct UnpackStore;
}

// ------------------------------------------------------------------ records
// The cJSON pointers point into the document that is marked as owned in the same or the enclosing
// structure.

struct ZNC_IMAGE_CFG_ROOTFS {
    char type[257]; // reserved
    char** diffId;  // owned; each element points to the hexadecimal part of a diff ID
    std::uint32_t diffIdCount;
    std::uint8_t chainId[znc::kSha256Len]; // chain ID of all layers
};

struct ZNC_IMAGE_CONFIG {
    cJSON* imageConfigJson; // owned; parsed from the same bytes whose digest was verified
    cJSON* user;            // reserved
    cJSON* architecture;
    cJSON* os;
    ZNC_IMAGE_CFG_ROOTFS imageCfgRootfs;
};

struct ZNC_IMAGE_MANIFEST_CONFIG {
    cJSON* mediaType;
    cJSON* digest;
    cJSON* size;
    char configFileName[znc::kPathMax];
    ZNC_IMAGE_CONFIG imageConfig;
};

struct ZNC_IMAGE_MANIFEST_LAYERS {
    cJSON* mediaType;
    cJSON* digest;
    cJSON* size;
    char layerFileName[znc::kPathMax];
};

struct ZNC_IMAGE_MANIFEST {
    cJSON* mediaType;
    cJSON* digest;
    cJSON* size;
    cJSON* architecture; // of the index entry's "platform", or null
    cJSON* os;           // of the index entry's "platform", or null
    cJSON* annotations;  // of the index entry, or null
    char manifestFileName[znc::kPathMax];
    cJSON* manifestJson; // owned; parsed from the same bytes whose digest was verified
    cJSON* schemaVersion;
    int manifestLayersCount;
    ZNC_IMAGE_MANIFEST_CONFIG manifestConfig;
    ZNC_IMAGE_MANIFEST_LAYERS* manifestLayers; // owned; the bottom layer first
};

struct zncImageIndex {
    char indexFileName[znc::kPathMax];
    const char* ociPath;  // owned by the caller
    cJSON* rootIndexJson; // owned
    cJSON* schemaVersion;
    int manifestsCount;
    int manifestsIndex;            // the chosen manifest, or -1
    ZNC_IMAGE_MANIFEST* manifests; // owned
    znc::UnpackStore* store;       // owned by zncImageUnpack; null: no early extraction, no records
};
using ZNC_IMAGE_INDEX = zncImageIndex;

enum JSON_FILE_TYPE {
    OCILAYOUTJSON = 0,
    INDEXJSON = 1,
    LAYERJSON = 2,
    MANIFESTJSON = 3,
    CONFIGJSON = 4
};

enum zncRootfsType { RAW_ROOTFS = 0, FLATTENDED_ROOTFS = 1, LAYERED_ROOTFS = 2 };

// ------------------------------------------------------------------ reader

OCI_IMAGE* zncImageInfoCreate();
void zncImageInfoDelete(OCI_IMAGE* image); // leaves errno unchanged
STATUS zncImageParse(OCI_IMAGE* image);
STATUS zncImageParseLayout(const char* imagePath);
STATUS zncImageParseIndex(OCI_IMAGE* image);
STATUS zncImageParseManifests(OCI_IMAGE* image);
// For these two the caller has already read, verified and parsed the JSON document.
STATUS zncImageParseManifest(OCI_IMAGE* image, int index);
STATUS zncImageParseImageConfig(ZNC_IMAGE_MANIFEST_CONFIG* config);
STATUS zncImageParseImageConfigRootfs(ZNC_IMAGE_CFG_ROOTFS* rootfs, cJSON* rootfsJson);
int zncImageFindManifest(const OCI_IMAGE* image, const char* os, const char* arch, const char* tag);

// Checks of single values. Where a check has no error code of its own, a failure leaves errno
// unchanged or as the failing system call set it.
STATUS composeFileName(const char* imagePath, JSON_FILE_TYPE fileType, cJSON* digest,
                       char* fileName, UINT32 fileNameLen);
STATUS validateJsonSchemaVersion(cJSON* schemaVersion);
STATUS validateJsonMediatype(JSON_FILE_TYPE type, cJSON* value);
STATUS validateJsonFileSize(const char* fileName, cJSON* size);
STATUS validateJsonDigest(const char* fileName, cJSON* value);
STATUS validateJsonString(const char* str, cJSON* jsonStr);
BOOL strEqual(const char* s, const char* p); // compares at most 256 characters

// ------------------------------------------------------------------ bundle maker

int zncImageRootfsTypeVerify(unsigned int rootfsArg); // a zncRootfsType, or -1
const char* zncDefaultOs();
const char* zncDefaultArchitecture();
const char* zncDefaultTag();
STATUS zncImageGenerateBundle(OCI_IMAGE* image, const char* bundlePath, int rootfsType);
STATUS zncCreateOciBundlePath(const char* bundlePath, bool* newCreate);
STATUS zncCreateOciBundleRootfs(const char* rootfsPath);
char* zncCreateOciRootfs(OCI_IMAGE* image, const char* bundleRootfs, int rootfsType);
STATUS zncImageExtractLayersEx(OCI_IMAGE* image, char* repositoryPath, std::size_t pathLen,
                               char** ppLayerPath);
STATUS zncImageExtractLayers(OCI_IMAGE* image, const char* rootfsPath);
STATUS zncCreateOciStRootfs(OCI_IMAGE* image, char* rootfsPath, const char** ppLayerPath,
                            std::uint32_t layerNum);
STATUS zncImageGetStringChainID(OCI_IMAGE* image, char* pChanIdBuf);
const char* pathCompBackup(const char* buf, const char* pos);
STATUS zncCreateDir(const char* dirName, mode_t mode);

// ------------------------------------------------------------------ configuration writer

BOOL strHasPrefix(const char* s, const char* p); // `p` is cut to 256 characters

namespace znc {

class TextList;

struct OciImageDeleter {
    void operator()(OCI_IMAGE* image) const noexcept { zncImageInfoDelete(image); }
};
using OciImagePtr = std::unique_ptr<OCI_IMAGE, OciImageDeleter>;

inline constexpr std::size_t kChainIdTextLen = 2 * kSha256Len + 1;
// longest part of an image's strings that is compared or copied
inline constexpr std::size_t kTextBound = 256;

inline bool exists(const char* path)
{
    return ::access(path, F_OK) == 0;
}

// Adds `item` to `object`. The key is not copied and must outlive the object. A null item is an
// allocation that failed: false.
inline bool add(cJSON* object, const char* key, CJsonPtr item)
{
    if (!item || cJSON_AddItemToObjectCS(object, key, item.get()) == 0)
        return false;
    (void)item.release();
    return true;
}

// Extracts a layer archive into the directory `dir` (null: only reads the archive, as a dry run)
// and computes its digest in the same pass. If the bytes read do not match `digest`, fails with
// S_zncLib_MANIFEST_INVALID even if the extraction failed for another reason as well. `*verified`,
// unless null, is set to whether they match. A damaged archive has no error code: errno is then 0.
// `*directories`, unless null, receives the directories that the archive names; the list is valid
// only if the function returns OK.
STATUS extract_layer(const char* layerFile, const char* digest, const char* dir,
                     const std::atomic<bool>* cancel = nullptr, bool* verified = nullptr,
                     TextList* directories = nullptr);

// The storage base: the parent of the directory that holds the layers or the flattened trees.
std::string_view store_base(std::string_view layers);

// The manifest that `manifestsIndex` selects, or null.
inline ZNC_IMAGE_MANIFEST* chosen_manifest(OCI_IMAGE* image)
{
    if (image == nullptr || image->manifestsIndex < 0 ||
        image->manifestsIndex >= image->manifestsCount)
        return nullptr;
    return &image->manifests[image->manifestsIndex];
}

} // namespace znc

#endif
