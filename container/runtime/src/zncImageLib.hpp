// zncImageLib.hpp - an OCI image layout as a record, and what is made of it. Shared by the units of
// the image module: the reader (_layout, _validate), the bundle maker (zncImageLib, _store), the
// configuration writer (_config) and the inspection (_inspect). Order of use: zncImageInfoCreate,
// set `ociPath`, zncImageParse, zncImageFindManifest into `manifestsIndex`, zncImageInfoDelete. A
// record belongs to one task at a time. Left out: what zncontainer.h and zncprotocol.h export.
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
//
// The cJSON pointers are borrowed from the document of the record that says "owned".

struct ZNC_IMAGE_CFG_ROOTFS {
    char type[257]; // reserved
    char** diffId;  // owned; each points behind the colon of a diff identifier
    std::uint32_t diffIdCount;
    std::uint8_t chainId[znc::kSha256Len]; // of the whole stack of layers
};

struct ZNC_IMAGE_CONFIG {
    cJSON* imageConfigJson; // owned; parsed from the very bytes whose digest was verified
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
    cJSON* manifestJson; // owned; parsed from the very bytes whose digest was verified
    cJSON* schemaVersion;
    int manifestLayersCount;
    ZNC_IMAGE_MANIFEST_CONFIG manifestConfig;
    ZNC_IMAGE_MANIFEST_LAYERS* manifestLayers; // owned; the bottom layer first
};

struct zncImageIndex {
    char indexFileName[znc::kPathMax];
    const char* ociPath;  // the caller's
    cJSON* rootIndexJson; // owned
    cJSON* schemaVersion;
    int manifestsCount;
    int manifestsIndex;            // the chosen manifest, or -1
    ZNC_IMAGE_MANIFEST* manifests; // owned
    znc::UnpackStore* store;       // the unpack's; null: nothing is extracted ahead or recorded
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
void zncImageInfoDelete(OCI_IMAGE* image); // keeps the task error number
STATUS zncImageParse(OCI_IMAGE* image);
STATUS zncImageParseLayout(const char* imagePath);
STATUS zncImageParseIndex(OCI_IMAGE* image);
STATUS zncImageParseManifests(OCI_IMAGE* image);
// The document of these two has been read, verified and parsed by the one who found it named.
STATUS zncImageParseManifest(OCI_IMAGE* image, int index);
STATUS zncImageParseImageConfig(ZNC_IMAGE_MANIFEST_CONFIG* config);
STATUS zncImageParseImageConfigRootfs(ZNC_IMAGE_CFG_ROOTFS* rootfs, cJSON* rootfsJson);
int zncImageFindManifest(const OCI_IMAGE* image, const char* os, const char* arch, const char* tag);

// Checks of single items. Those that fail without a code of their own leave the task error number
// alone or at that of the failing call.
STATUS composeFileName(const char* imagePath, JSON_FILE_TYPE fileType, cJSON* digest,
                       char* fileName, UINT32 fileNameLen);
STATUS validateJsonSchemaVersion(cJSON* schemaVersion);
STATUS validateJsonMediatype(JSON_FILE_TYPE type, cJSON* value);
STATUS validateJsonFileSize(const char* fileName, cJSON* size);
STATUS validateJsonDigest(const char* fileName, cJSON* value);
STATUS validateJsonString(const char* str, cJSON* jsonStr);
BOOL strEqual(const char* s, const char* p); // looks at 256 characters at most

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

BOOL strHasPrefix(const char* s, const char* p); // looks at 256 characters of `p` at most

namespace znc {

class TextList;

struct OciImageDeleter {
    void operator()(OCI_IMAGE* image) const noexcept { zncImageInfoDelete(image); }
};
using OciImagePtr = std::unique_ptr<OCI_IMAGE, OciImageDeleter>;

inline constexpr std::size_t kChainIdTextLen = 2 * kSha256Len + 1;
inline constexpr std::size_t kTextBound = 256; // how far texts of an image are looked at

inline bool exists(const char* path)
{
    return ::access(path, F_OK) == 0;
}

// `key` must outlive the object. A null item is one that could not be made.
inline bool add(cJSON* object, const char* key, CJsonPtr item)
{
    if (!item || cJSON_AddItemToObjectCS(object, key, item.get()) == 0)
        return false;
    (void)item.release();
    return true;
}

// Extract the archive of a layer into the directory `dir` (null: a dry run), reading it once:
// S_zncLib_MANIFEST_INVALID when what was read is not what `digest` names, whatever else happened.
// `*verified`, where there is one, tells that too. An archive that is damaged has no number of its
// own: the task error number is 0 then, whatever it was before. `*directories`, where there is one,
// gets those that the archive names; they are worth something when all else is OK.
STATUS extract_layer(const char* layerFile, const char* digest, const char* dir,
                     const std::atomic<bool>* cancel = nullptr, bool* verified = nullptr,
                     TextList* directories = nullptr);

// The storage base of the directory of its layers or its flattened trees.
std::string_view store_base(std::string_view layers);

// The manifest chosen, or null when none is.
inline ZNC_IMAGE_MANIFEST* chosen_manifest(OCI_IMAGE* image)
{
    if (image == nullptr || image->manifestsIndex < 0 ||
        image->manifestsIndex >= image->manifestsCount)
        return nullptr;
    return &image->manifests[image->manifestsIndex];
}

} // namespace znc

#endif
