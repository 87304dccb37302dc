// zncImageLib_layout.cpp - reads an image layout: "oci-layout", "index.json", and every manifest,
// configuration and layer descriptor that the index leads to; chooses a manifest.
#include "zncImageLib.hpp"

#include "base/failure.hpp"
#include "base/file.hpp"
#include "cJSON_Additions.h"
#include "format/names.hpp"
#include "zncProgress.hpp"
#include "zncUnpackStore.hpp"
#include "zncWorkAhead.hpp"

#include <algorithm>
#include <cstring>
#include <string_view>

using znc::exists;
using znc::fail;
using znc::kTextBound;

namespace {

constexpr std::size_t kDiffIdMax = 200; // characters, exclusive
constexpr char kLatest[] = "latest";

// Fails with `code` after a failed check, or with ENOMEM if the check ran out of memory.
STATUS reject(int code)
{
    return errno == ENOMEM ? ERROR : fail(code);
}

// Runs a check with an errno that only the check itself can have set.
template <class Check> bool passes(Check check)
{
    errno = 0;
    return check();
}

// A document of the layout. It is read only once, so that the parsed text is the text that was
// verified.
class Document {
  public:
    // `path` must outlive the object.
    explicit Document(const char* path) : path_(path)
    {
        struct stat st = {};
        const znc::UniqueFd fd = znc::open_regular(path, &st);
        if (fd)
            text_ = znc::read_text(fd.get(), st);
        tooLarge_ = fd && !text_.bytes && errno == EFBIG;
    }
    // A document that is too large to be parsed is still checked, by its file, so that the error is
    // the right one.
    [[nodiscard]] bool has_size(cJSON* size) const
    {
        if (tooLarge_)
            return validateJsonFileSize(path_, size) == OK;
        return text_.bytes && static_cast<std::int64_t>(text_.len) == cJSON_integer64_value(size);
    }
    [[nodiscard]] bool has_digest(cJSON* digest) const
    {
        if (tooLarge_)
            return validateJsonDigest(path_, digest) == OK;
        return text_.bytes &&
               znc::has_digest(text_.bytes.get(), text_.len, cJSON_GetStringValue(digest));
    }
    // Null with errno set if the text is not JSON.
    [[nodiscard]] cJSON* parse() const
    {
        errno = EINVAL;
        return text_.bytes ? cJSON_parse_whole(text_.bytes.get(), text_.len) : nullptr;
    }

  private:
    const char* path_;
    znc::FileText text_;
    bool tooLarge_ = false;
};

cJSON* load(const char* path)
{
    errno = 0;
    return cJSON_load_from_file(path);
}

template <class T> T* allocate(int count)
{
    return znc::malloc_array<T>(static_cast<std::size_t>(count)).release();
}

void release_rootfs(ZNC_IMAGE_CFG_ROOTFS& rootfs)
{
    const znc::MallocPtr<char*> ids(rootfs.diffId);
    rootfs.diffId = nullptr;
    rootfs.diffIdCount = 0;
}

void release_layers(ZNC_IMAGE_MANIFEST& manifest)
{
    const znc::MallocPtr<ZNC_IMAGE_MANIFEST_LAYERS> layers(manifest.manifestLayers);
    manifest.manifestLayers = nullptr;
    manifest.manifestLayersCount = 0;
}

void release_manifests(OCI_IMAGE& image)
{
    const znc::MallocPtr<ZNC_IMAGE_MANIFEST> manifests(image.manifests);
    for (int i = 0; i < image.manifestsCount; ++i) {
        ZNC_IMAGE_MANIFEST& manifest = image.manifests[i];
        const znc::CJsonPtr document(manifest.manifestJson);
        const znc::CJsonPtr config(manifest.manifestConfig.imageConfig.imageConfigJson);
        release_layers(manifest);
        release_rootfs(manifest.manifestConfig.imageConfig.imageCfgRootfs);
    }
    image.manifests = nullptr;
    image.manifestsCount = 0;
}

// Parses one entry of the index and the manifest that it refers to.
STATUS parse_entry(OCI_IMAGE& image, int index, cJSON* entry)
{
    ZNC_IMAGE_MANIFEST& manifest = image.manifests[index];
    cJSON* media_type = cJSON_GetObjectItem(entry, "mediaType");
    cJSON* size = cJSON_GetObjectItem(entry, "size");
    cJSON* digest = cJSON_GetObjectItem(entry, "digest");
    cJSON* platform = cJSON_GetObjectItem(entry, "platform");
    if (media_type == nullptr || size == nullptr || digest == nullptr ||
        validateJsonMediatype(INDEXJSON, media_type) != OK)
        return fail(S_zncLib_INDEX_INVALID);
    char* const file = manifest.manifestFileName;
    if (composeFileName(image.ociPath, MANIFESTJSON, digest, file, znc::kPathMax) != OK)
        return ERROR;
    if (!exists(file))
        return fail(S_zncLib_MANIFEST_NOT_FOUND);
    errno = 0;
    const Document document(file);
    if (!document.has_size(size) || !document.has_digest(digest))
        return reject(S_zncLib_INDEX_INVALID);
    manifest.manifestJson = document.parse();
    if (manifest.manifestJson == nullptr)
        return reject(S_zncLib_MANIFEST_INVALID);
    manifest.mediaType = media_type;
    manifest.digest = digest;
    manifest.size = size;
    manifest.annotations = cJSON_GetObjectItem(entry, "annotations");
    manifest.architecture = cJSON_GetObjectItem(platform, "architecture");
    manifest.os = cJSON_GetObjectItem(platform, "os");
    return zncImageParseManifest(&image, index);
}

STATUS parse_manifest_config(const char* image_path, ZNC_IMAGE_MANIFEST_CONFIG& config, cJSON* item)
{
    config.mediaType = cJSON_GetObjectItem(item, "mediaType");
    config.digest = cJSON_GetObjectItem(item, "digest");
    config.size = cJSON_GetObjectItem(item, "size");
    if (config.mediaType == nullptr || validateJsonMediatype(CONFIGJSON, config.mediaType) != OK ||
        config.digest == nullptr)
        return fail(S_zncLib_MANIFEST_INVALID);
    char* const file = config.configFileName;
    if (composeFileName(image_path, CONFIGJSON, config.digest, file, znc::kPathMax) != OK)
        return ERROR;
    if (!exists(file))
        return fail(S_zncLib_CONFIG_NOT_FOUND);
    errno = 0;
    const Document document(file);
    if (!document.has_digest(config.digest) || config.size == nullptr ||
        !document.has_size(config.size))
        return reject(S_zncLib_MANIFEST_INVALID);
    config.imageConfig.imageConfigJson = document.parse();
    if (config.imageConfig.imageConfigJson == nullptr)
        return reject(S_zncLib_CONFIG_INVALID);
    return zncImageParseImageConfig(&config);
}

// Whether a layer with this digest was already verified for an earlier manifest: images of a layout
// often share layers.
bool is_verified(const OCI_IMAGE& image, const ZNC_IMAGE_MANIFEST& manifest, const cJSON* digest)
{
    const char* const text = cJSON_GetStringValue(digest);
    int left = 1000; // limits the search: an index may name any number of layers
    for (const ZNC_IMAGE_MANIFEST* m = image.manifests; text != nullptr && m != &manifest; ++m)
        for (int i = 0; i < m->manifestLayersCount && left > 0; ++i, --left)
            if (std::strcmp(text, cJSON_GetStringValue(m->manifestLayers[i].digest)) == 0)
                return true;
    return false;
}

// Verifies the digests of a manifest's layers. If there is enough data, they are computed on all
// processors, but the first wrong one is reported as in a sequential run. Layers that will be
// stored are extracted in the same pass.
class LayerDigests {
  public:
    LayerDigests(const OCI_IMAGE& image, ZNC_IMAGE_MANIFEST& manifest)
        : image_(image), manifest_(manifest),
          work_(check, this, static_cast<std::size_t>(manifest.manifestLayersCount))
    {
        if (image.store == nullptr)
            return;
        image.store->ahead.prepare(image, manifest);
        if (image.store->ahead.is_for(manifest))
            ahead_ = &image.store->ahead;
    }

    // Starts to verify the files that the descriptors in `layers` name; invalid descriptors are
    // skipped here. ERROR: out of memory.
    STATUS start(const cJSON* layers)
    {
        if (!find_duplicates(layers))
            return ERROR;
        constexpr std::int64_t kParallelMin = 1024 * 1024;
        std::int64_t bytes = 0;
        std::size_t index = 0;
        for (const cJSON* item = layers->child; item != nullptr; item = item->next)
            bytes += std::clamp<std::int64_t>(
                cJSON_integer64_value(cJSON_GetObjectItem(item, "size")), 0, kParallelMin);
        if (bytes < kParallelMin)
            return OK;
        for (const cJSON* item = layers->child; item != nullptr; item = item->next, ++index)
            if (duplicates_.first(index) != index ||
                !prepare(manifest_.manifestLayers[index], cJSON_GetObjectItem(item, "digest")))
                work_.exclude(index);
        work_.start();
        return OK;
    }

    STATUS result(std::size_t index)
    {
        // The caller asks in order and stops at the first error: an equal earlier layer was OK.
        if (duplicates_.first(index) != index ||
            is_verified(image_, manifest_, manifest_.manifestLayers[index].digest))
            return OK;
        return ahead_ != nullptr && ahead_->wants(index) ? extracted(index) : work_.result(index);
    }

  private:
    bool find_duplicates(const cJSON* layers)
    {
        const cJSON* item = layers->child;
        return duplicates_.find(next_digest, &item,
                                static_cast<std::size_t>(manifest_.manifestLayersCount));
    }
    // Duplicates::find() asks in order of the index, so `context` points to the next list item.
    static const char* next_digest(void* context, std::size_t)
    {
        const cJSON*& item = *static_cast<const cJSON**>(context);
        const char* const text = cJSON_GetStringValue(cJSON_GetObjectItem(item, "digest"));
        item = item->next;
        return text;
    }
    // Waits for the extraction of the layer and reports it to the progress callback.
    STATUS extracted(std::size_t index)
    {
        const auto count = static_cast<std::uint32_t>(manifest_.manifestLayersCount);
        znc::LayerProgress progress(manifest_.manifestLayers[index].layerFileName,
                                    ahead_->reported(), count);
        const STATUS status = work_.result(index, report);
        if (status == OK && ahead_->was_extracted(index)) {
            progress.complete();
            ahead_->tell_one();
        }
        return status;
    }
    static void report(void* self, std::size_t index)
    {
        znc::progress_follow(static_cast<LayerDigests*>(self)->ahead_->position(index));
    }
    static STATUS check(void* self, std::size_t index)
    {
        const auto& digests = *static_cast<LayerDigests*>(self);
        const ZNC_IMAGE_MANIFEST_LAYERS& layer = digests.manifest_.manifestLayers[index];
        return digests.ahead_ != nullptr ? digests.ahead_->verify(index)
                                         : validateJsonDigest(layer.layerFileName, layer.digest);
    }
    bool prepare(ZNC_IMAGE_MANIFEST_LAYERS& layer, cJSON* digest)
    {
        if (digest == nullptr || is_verified(image_, manifest_, digest))
            return false;
        layer.digest = digest;
        const bool named = composeFileName(image_.ociPath, LAYERJSON, digest, layer.layerFileName,
                                           znc::kPathMax) == OK;
        if (!named)
            layer.layerFileName[0] = '\0';
        return named;
    }

    const OCI_IMAGE& image_;
    ZNC_IMAGE_MANIFEST& manifest_;
    znc::Duplicates duplicates_;
    znc::StoreAhead* ahead_ = nullptr; // where the layers are extracted as they are verified
    znc::WorkAhead work_;
};

STATUS parse_layer(const char* image_path, ZNC_IMAGE_MANIFEST_LAYERS& layer, cJSON* item,
                   LayerDigests& digests, std::size_t index)
{
    layer.mediaType = cJSON_GetObjectItem(item, "mediaType");
    if (layer.digest == nullptr) // if set, a helper thread may be reading it
        layer.digest = cJSON_GetObjectItem(item, "digest");
    layer.size = cJSON_GetObjectItem(item, "size");
    if (layer.mediaType == nullptr || validateJsonMediatype(LAYERJSON, layer.mediaType) != OK ||
        layer.digest == nullptr || layer.size == nullptr)
        return fail(S_zncLib_MANIFEST_INVALID);
    char* const file = layer.layerFileName;
    if (file[0] == '\0' &&
        composeFileName(image_path, LAYERJSON, layer.digest, file, znc::kPathMax) != OK)
        return ERROR;
    if (!passes([&] {
            return digests.result(index) == OK && validateJsonFileSize(file, layer.size) == OK;
        }))
        return reject(S_zncLib_MANIFEST_INVALID);
    return OK;
}

STATUS parse_each_layer(const OCI_IMAGE& image, ZNC_IMAGE_MANIFEST& manifest, const cJSON* layers)
{
    LayerDigests digests(image, manifest);
    if (digests.start(layers) != OK)
        return ERROR;
    std::size_t index = 0;
    for (cJSON* item = layers->child; item != nullptr; item = item->next, ++index)
        if (parse_layer(image.ociPath, manifest.manifestLayers[index], item, digests, index) != OK)
            return ERROR;
    return OK;
}

STATUS parse_layers(const OCI_IMAGE& image, ZNC_IMAGE_MANIFEST& manifest, cJSON* layers)
{
    const int count = cJSON_GetArraySize(layers);
    if (count < 1)
        return fail(S_zncLib_MANIFEST_INVALID);
    manifest.manifestLayers = allocate<ZNC_IMAGE_MANIFEST_LAYERS>(count);
    if (manifest.manifestLayers == nullptr)
        return ERROR;
    manifest.manifestLayersCount = count;
    if (parse_each_layer(image, manifest, layers) == OK)
        return OK;
    release_layers(manifest);
    return ERROR;
}

// The hexadecimal part of a diff ID; null if it is invalid.
char* diff_id_hex(cJSON* item)
{
    char* text = cJSON_GetStringValue(item);
    if (text == nullptr)
        return nullptr;
    const std::size_t len = ::strnlen(text, kTextBound);
    if (len < 1 || len >= kDiffIdMax)
        return nullptr;
    char* const colon = std::strchr(text, ':');
    if (colon == nullptr)
        return nullptr;
    const std::string_view algorithm(text, static_cast<std::size_t>(colon - text));
    const std::size_t digits = std::strlen(colon + 1);
    // A SHA-512 digest has 128 digits, but 192 are required here. This must not change.
    const bool good =
        (algorithm == "sha256" && digits == 64) || (algorithm == "sha512" && digits == 192);
    return good ? colon + 1 : nullptr;
}

bool parse_diff_ids(ZNC_IMAGE_CFG_ROOTFS& rootfs, cJSON* ids)
{
    std::string_view before;
    std::uint32_t k = 0;
    for (cJSON* item = ids->child; item != nullptr; item = item->next) {
        char* const hex = diff_id_hex(item);
        if (hex == nullptr || !znc::chain_digest(rootfs.chainId, before, hex))
            return false;
        rootfs.diffId[k++] = hex;
        before = {reinterpret_cast<const char*>(rootfs.chainId), sizeof rootfs.chainId};
    }
    return true;
}

bool tag_matches(const ZNC_IMAGE_MANIFEST& manifest, const char* tag, bool is_latest)
{
    const char* name =
        cJSON_GetStringValue(cJSON_GetObjectItem(manifest.annotations, znc::kRefName));
    if (name == nullptr)
        return is_latest; // an image without a name is the latest
    return strEqual(name, tag) == TRUE;
}

bool platform_matches(const ZNC_IMAGE_MANIFEST& manifest, const char* os, const char* arch)
{
    const ZNC_IMAGE_CONFIG& config = manifest.manifestConfig.imageConfig;
    return (manifest.os == nullptr || validateJsonString(os, manifest.os) == OK) &&
           (manifest.architecture == nullptr ||
            validateJsonString(arch, manifest.architecture) == OK) &&
           validateJsonString(os, config.os) == OK &&
           validateJsonString(arch, config.architecture) == OK;
}

} // namespace

OCI_IMAGE* zncImageInfoCreate()
{
    auto image = znc::malloc_zeroed<OCI_IMAGE>();
    if (image)
        image->manifestsIndex = -1;
    return image.release();
}

void zncImageInfoDelete(OCI_IMAGE* image)
{
    if (image == nullptr)
        return;
    const znc::MallocPtr<OCI_IMAGE> record(image);
    release_manifests(*image);
    const znc::CJsonPtr index(image->rootIndexJson);
}

STATUS zncImageParse(OCI_IMAGE* image)
{
    return zncImageParseLayout(image->ociPath) == OK ? zncImageParseIndex(image) : ERROR;
}

STATUS zncImageParseLayout(const char* imagePath)
{
    const auto path = znc::malloc_array<char>(znc::kPathMax);
    // Unlike all later steps, this one reports every failure with errno 0.
    if (!path ||
        composeFileName(imagePath, OCILAYOUTJSON, nullptr, path.get(), znc::kPathMax) != OK)
        return fail(0);
    if (!exists(path.get()))
        return fail(S_zncLib_LAYOUT_NOT_FOUND);
    const znc::CJsonPtr layout(load(path.get()));
    if (!layout)
        return reject(S_zncLib_LAYOUT_INVALID);
    if (validateJsonString("1.0.0", cJSON_GetObjectItem(layout.get(), "imageLayoutVersion")) != OK)
        return fail(S_zncLib_LAYOUT_INVALID);
    return OK;
}

STATUS zncImageParseIndex(OCI_IMAGE* image)
{
    if (composeFileName(image->ociPath, INDEXJSON, nullptr, image->indexFileName, znc::kPathMax) !=
        OK)
        return ERROR;
    if (!exists(image->indexFileName))
        return fail(S_zncLib_INDEX_NOT_FOUND);
    return zncImageParseManifests(image);
}

STATUS zncImageParseManifests(OCI_IMAGE* image)
{
    image->rootIndexJson = load(image->indexFileName);
    if (image->rootIndexJson == nullptr)
        return reject(S_zncLib_INDEX_INVALID);
    image->schemaVersion = cJSON_GetObjectItem(image->rootIndexJson, "schemaVersion");
    cJSON* const entries = cJSON_GetObjectItem(image->rootIndexJson, "manifests");
    const int count = entries != nullptr ? cJSON_GetArraySize(entries) : 0;
    if (image->schemaVersion == nullptr || validateJsonSchemaVersion(image->schemaVersion) != OK ||
        count < 1)
        return fail(S_zncLib_INDEX_INVALID);
    image->manifests = allocate<ZNC_IMAGE_MANIFEST>(count);
    if (image->manifests == nullptr)
        return ERROR;
    image->manifestsCount = count;
    int index = 0;
    for (cJSON* entry = entries->child; entry != nullptr; entry = entry->next)
        if (parse_entry(*image, index++, entry) != OK) {
            release_manifests(*image);
            return ERROR;
        }
    return OK;
}

STATUS zncImageParseManifest(OCI_IMAGE* image, int index)
{
    ZNC_IMAGE_MANIFEST& manifest = image->manifests[index];
    if (manifest.manifestJson == nullptr)
        return fail(S_zncLib_MANIFEST_NOT_FOUND);
    manifest.schemaVersion = cJSON_GetObjectItem(manifest.manifestJson, "schemaVersion");
    cJSON* const config = cJSON_GetObjectItem(manifest.manifestJson, "config");
    if (manifest.schemaVersion == nullptr ||
        validateJsonSchemaVersion(manifest.schemaVersion) != OK || config == nullptr)
        return fail(S_zncLib_MANIFEST_INVALID);
    if (parse_manifest_config(image->ociPath, manifest.manifestConfig, config) != OK)
        return ERROR;
    cJSON* const layers = cJSON_GetObjectItem(manifest.manifestJson, "layers");
    if (layers == nullptr)
        return fail(S_zncLib_MANIFEST_INVALID);
    return parse_layers(*image, manifest, layers);
}

STATUS zncImageParseImageConfig(ZNC_IMAGE_MANIFEST_CONFIG* config)
{
    if (config == nullptr)
        return ERROR;
    ZNC_IMAGE_CONFIG& image = config->imageConfig;
    if (image.imageConfigJson == nullptr)
        return fail(S_zncLib_CONFIG_NOT_FOUND);
    image.architecture = cJSON_GetObjectItem(image.imageConfigJson, "architecture");
    image.os = cJSON_GetObjectItem(image.imageConfigJson, "os");
    cJSON* const rootfs = cJSON_GetObjectItem(image.imageConfigJson, "rootfs");
    if (image.architecture == nullptr || image.os == nullptr || rootfs == nullptr)
        return fail(S_zncLib_CONFIG_INVALID);
    if (!passes(
            [&] { return zncImageParseImageConfigRootfs(&image.imageCfgRootfs, rootfs) == OK; }))
        return reject(S_zncLib_CONFIG_INVALID);
    return OK;
}

STATUS zncImageParseImageConfigRootfs(ZNC_IMAGE_CFG_ROOTFS* rootfs, cJSON* rootfsJson)
{
    cJSON* const ids = cJSON_GetObjectItem(rootfsJson, "diff_ids");
    const int count = ids != nullptr ? cJSON_GetArraySize(ids) : 0;
    if (count < 1)
        return ERROR;
    rootfs->diffId = allocate<char*>(count);
    if (rootfs->diffId == nullptr)
        return ERROR;
    rootfs->diffIdCount = static_cast<std::uint32_t>(count);
    if (!parse_diff_ids(*rootfs, ids)) {
        release_rootfs(*rootfs);
        return ERROR;
    }
    return OK;
}

int zncImageFindManifest(const OCI_IMAGE* image, const char* os, const char* arch, const char* tag)
{
    const bool is_latest = strEqual(tag, kLatest) == TRUE;
    for (int i = 0; i < image->manifestsCount; ++i)
        if (tag_matches(image->manifests[i], tag, is_latest) &&
            platform_matches(image->manifests[i], os, arch))
            return i;
    return znc::fail(S_zncLib_INDEX_INVALID);
}
