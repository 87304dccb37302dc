// zncImageLib.cpp - makes a bundle of an image: the bundle directory, one of the three kinds of
// root filesystem, and "config.json". Runs in the caller's process; nothing is kept between calls.
#include "zncImageLib.hpp"

#include "cJSON_Additions.h"
#include "zarnel/fs.h"
#include "zncProgress.hpp"
#include "zncStoreAhead.hpp"
#include "zncTreeLinks.hpp"
#include "zncWorkAhead.hpp"

#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>

using znc::exists;
using znc::fail;

namespace {

constexpr char kOverlayDir[] = "/overlay/";
constexpr std::int64_t kWorthwhile = 1024 * 1024; // bytes of layers that are worth a helper task
// A member's path has fewer than kPathMax characters: what lies deeper is in no member's way.
constexpr std::size_t kMemberLevels = znc::kPathMax / 2;
constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// `first` and `second` into a path buffer; false when they do not fit.
bool compose(char* path, const char* first, const char* second)
{
    char* const end = path + znc::kPathMax;
    return znc::copy_end(znc::copy_end(path, end, first), end, second) != end;
}

// The directories of the layers, the top one first.
class LayerPaths {
  public:
    bool allocate(std::size_t count)
    {
        list_ = znc::malloc_array<char*>(count);
        text_ = znc::malloc_array<char>(count * znc::kPathMax);
        if (!list_ || !text_)
            return false;
        for (std::size_t k = 0; k < count; ++k)
            list_[k] = text_.get() + k * znc::kPathMax;
        return true;
    }
    [[nodiscard]] char** get() const { return list_.get(); }

  private:
    znc::MallocPtr<char*[]> list_;
    znc::MallocPtr<char[]> text_;
};

STATUS layered_root(OCI_IMAGE* image, char* root, const LayerPaths& layers, std::size_t count)
{
    const std::size_t len = zncBasePathGet(root, znc::kPathMax, ZNC_LAYER_PATH);
    if (len == 0 || zncImageExtractLayersEx(image, root, len, layers.get()) != OK)
        return ERROR;
    if (count < 2)
        return compose(root, layers.get()[0], "") ? OK : fail(ENAMETOOLONG);
    return zncCreateOciStRootfs(image, root, const_cast<const char**>(layers.get()),
                                static_cast<std::uint32_t>(count));
}

bool remove_links(znc::UniqueFd fd, std::size_t level);

// A link goes, a directory is searched, anything else stays.
bool remove_links_at(int dir, const char* name, std::size_t level)
{
    struct stat st = {};
    if (::fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT;
    if (S_ISLNK(st.st_mode))
        return ::unlinkat(dir, name, 0) == 0 || errno == ENOENT;
    if (!S_ISDIR(st.st_mode) || level == kMemberLevels)
        return true;
    return remove_links(znc::UniqueFd(::openat(dir, name, kDirFlags)), level + 1);
}

// Removes the links of an earlier extraction of the same layers: extracting them again would fail
// on them, since a link, other than a file, is never overwritten. By descriptors, and not by paths:
// a container whose root the tree is may put links to the host's directories into the way.
bool remove_links(znc::UniqueFd fd, std::size_t level)
{
    const znc::UniqueDir stream(fd ? ::fdopendir(fd.get()) : nullptr);
    if (!stream)
        return false;
    (void)fd.release(); // the stream's now
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(stream.get());
        if (entry == nullptr)
            return errno == 0;
        const std::string_view name = entry->d_name;
        if (name != "." && name != ".." &&
            !remove_links_at(::dirfd(stream.get()), entry->d_name, level))
            return false;
    }
}

// The directory `root`, without links when it is there already.
bool prepare_flattened(const char* root)
{
    if (!exists(root))
        return znMkdirParents(root, 0700) == OK;
    return remove_links(znc::UniqueFd(::open(root, O_RDONLY | O_DIRECTORY | O_CLOEXEC)), 0);
}

STATUS flattened_root(OCI_IMAGE* image, char* root)
{
    const std::size_t len = zncBasePathGet(root, znc::kPathMax, ZNC_FLATTENED_PATH);
    char chain[znc::kChainIdTextLen];
    if (len == 0 || zncImageGetStringChainID(image, chain) != OK)
        return ERROR;
    char* const end = root + znc::kPathMax;
    if (znc::copy_end(root + len, end, chain) == end)
        return fail(ENAMETOOLONG);
    return prepare_flattened(root) ? zncImageExtractLayers(image, root) : ERROR;
}

STATUS raw_root(OCI_IMAGE* image, const char* bundle, char* root)
{
    if (!compose(root, bundle, "/rootfs"))
        return fail(ENAMETOOLONG);
    if (zncImageExtractLayers(image, root) != OK)
        return ERROR;
    return compose(root, "rootfs", "") ? OK : ERROR;
}

// What is in a bundle directory. `path` is a buffer to work in.
STATUS fill_bundle(OCI_IMAGE* image, const char* bundle, int type, char* path)
{
    if (!compose(path, bundle, "/rootfs"))
        return fail(S_zncLib_BUNDLE_PATH_TOO_LONG);
    if (zncCreateOciBundleRootfs(path) != OK)
        return ERROR;
    const znc::MallocPtr<char> root(zncCreateOciRootfs(image, bundle, type));
    if (!root)
        return ERROR;
    errno = 0; // a path too long has no number here
    if (!compose(path, bundle, "/config.json"))
        return ERROR;
    return zncCreateOciBundleConfig(image, path, root.get());
}

std::uint32_t layer_total(const ZNC_IMAGE_MANIFEST& manifest)
{
    return static_cast<std::uint32_t>(manifest.manifestLayersCount);
}

std::int64_t stored_size(const ZNC_IMAGE_MANIFEST& manifest)
{
    std::int64_t bytes = 0; // the sizes are those of files
    for (int i = 0; i < manifest.manifestLayersCount; ++i)
        bytes += cJSON_integer64_value(manifest.manifestLayers[i].size);
    return bytes;
}

// The store's directory of a layer archive, behind the `baseLen` characters of the store itself.
STATUS layer_directory(const char* file, char* path, std::size_t baseLen)
{
    const char* const end = file + ::strnlen(file, znc::kPathMax);
    const char* const name = pathCompBackup(file, end);
    if (name == nullptr)
        return fail(EINVAL);
    const auto len = static_cast<std::size_t>(end - name);
    if (len + baseLen >= znc::kPathMax)
        return fail(ENAMETOOLONG);
    std::memcpy(path + baseLen, name, len);
    path[baseLen + len] = '\0';
    return OK;
}

// Filling the store with the layers of an image, the top one first. Each is extracted beside its
// place and appears complete, so they can be extracted at the same time; those that were when
// another one fails stay, as those before it do.
struct StoreJobs {
    const ZNC_IMAGE_MANIFEST* manifest;
    const char* base;
    std::size_t baseLen;
    znc::StoreAhead* ahead;

    [[nodiscard]] const char* file(std::size_t k) const
    {
        const auto last = static_cast<std::size_t>(manifest->manifestLayersCount) - 1;
        return manifest->manifestLayers[last - k].layerFileName;
    }
    static STATUS store(void* self, std::size_t k)
    {
        const auto& jobs = *static_cast<StoreJobs*>(self);
        const auto path = znc::malloc_array<char>(znc::kPathMax);
        if (!path)
            return ERROR;
        std::memcpy(path.get(), jobs.base, jobs.baseLen);
        return layer_directory(jobs.file(k), path.get(), jobs.baseLen) == OK
                   ? znc::store_layer(jobs.file(k), path.get(), jobs.baseLen, jobs.ahead)
                   : ERROR;
    }
};

// How many layers an image can have whose layers go into the store.
std::size_t stored_layers_max(int type)
{
    switch (type) {
    case LAYERED_ROOTFS:
        return SIZE_MAX;
    case FLATTENDED_ROOTFS:
        return 1;
    default:
        return 0;
    }
}

} // namespace

int zncImageRootfsTypeVerify(unsigned int rootfsArg)
{
    const bool overlay = zncOvlFsAvailable() == TRUE;
    if ((rootfsArg & ZNC_OPT_FLATTEN) != 0)
        return overlay ? FLATTENDED_ROOTFS : -1;
    return overlay ? LAYERED_ROOTFS : RAW_ROOTFS;
}

const char* zncDefaultOs()
{
    return "zarnel";
}
const char* zncDefaultArchitecture()
{
    return "amd64";
}
const char* zncDefaultTag()
{
    return "latest";
}

STATUS zncImageUnpack(const char* bundlePath, const char* ociPath, const char* tag,
                      unsigned int option, const ZNC_BUNDLE_ATTR* pAttr)
{
    if (bundlePath == nullptr || ociPath == nullptr)
        return fail(EINVAL);
    const int type = zncImageRootfsTypeVerify(option);
    if (type < 0)
        return fail(EINVAL);
    const bool has_os = pAttr != nullptr && pAttr->platform != nullptr;
    const bool has_arch = pAttr != nullptr && pAttr->arch != nullptr;
    const char* const os = has_os ? pAttr->platform : zncDefaultOs();
    const char* const arch = has_arch ? pAttr->arch : zncDefaultArchitecture();
    const char* const name = tag != nullptr ? tag : zncDefaultTag();
    const znc::OciImagePtr image(zncImageInfoCreate());
    if (!image)
        return ERROR;
    znc::StoreAhead ahead(os, arch, name, stored_layers_max(type));
    image->ahead = &ahead;
    image->ociPath = ociPath;
    if (zncImageParse(image.get()) != OK)
        return ERROR;
    image->manifestsIndex = zncImageFindManifest(image.get(), os, arch, name);
    if (image->manifestsIndex < 0)
        return ERROR;
    return zncImageGenerateBundle(image.get(), bundlePath, type);
}

STATUS zncImageGenerateBundle(OCI_IMAGE* image, const char* bundlePath, int rootfsType)
{
    const auto path = znc::malloc_array<char>(znc::kPathMax);
    bool newCreate = false;
    if (!path || zncCreateOciBundlePath(bundlePath, &newCreate) != OK)
        return ERROR;
    if (fill_bundle(image, bundlePath, rootfsType, path.get()) == OK)
        return OK;
    const znc::ErrnoSaver keep;
    // A path too long for the tree delete is too long to have been filled as well.
    if (newCreate && zncImageBundleDelete(bundlePath) != OK)
        ::rmdir(bundlePath);
    return ERROR;
}

STATUS zncCreateOciBundlePath(const char* bundlePath, bool* newCreate)
{
    *newCreate = zncCreateDir(bundlePath, 0777) == OK;
    return *newCreate || errno == EEXIST ? OK : ERROR;
}

STATUS zncCreateOciBundleRootfs(const char* rootfsPath)
{
    return exists(rootfsPath) ? fail(S_zncLib_BUNDLE_ROOTFS_EXISTS)
                              : zncCreateDir(rootfsPath, 0777);
}

char* zncCreateOciRootfs(OCI_IMAGE* image, const char* bundleRootfs, int rootfsType)
{
    auto root = znc::malloc_array<char>(znc::kPathMax);
    const ZNC_IMAGE_MANIFEST* manifest = znc::chosen_manifest(image);
    if (!root || manifest == nullptr)
        return nullptr;
    const int layer_count = rootfsType == RAW_ROOTFS ? 1 : manifest->manifestLayersCount;
    const auto count = static_cast<std::size_t>(layer_count);
    LayerPaths layers;
    if (!layers.allocate(count))
        return nullptr;
    STATUS status = ERROR;
    if (rootfsType == LAYERED_ROOTFS || (rootfsType == FLATTENDED_ROOTFS && count == 1))
        status = layered_root(image, root.get(), layers, count);
    else if (rootfsType == FLATTENDED_ROOTFS)
        status = flattened_root(image, root.get());
    else if (rootfsType == RAW_ROOTFS)
        status = raw_root(image, bundleRootfs, root.get());
    return status == OK ? root.release() : nullptr;
}

STATUS zncImageExtractLayersEx(OCI_IMAGE* image, char* repositoryPath, std::size_t pathLen,
                               char** ppLayerPath)
{
    const ZNC_IMAGE_MANIFEST* manifest = znc::chosen_manifest(image);
    if (manifest == nullptr)
        return fail(EINVAL);
    const std::uint32_t count = layer_total(*manifest);
    StoreJobs jobs{manifest, repositoryPath, pathLen, image->ahead};
    znc::WorkAhead work(StoreJobs::store, &jobs, count);
    if (stored_size(*manifest) >= kWorthwhile)
        work.start();
    for (std::uint32_t k = 0; k < count; ++k) {
        const char* file = jobs.file(k);
        if (layer_directory(file, repositoryPath, pathLen) != OK)
            return ERROR;
        std::memcpy(ppLayerPath[k], repositoryPath, std::strlen(repositoryPath) + 1);
        znc::LayerProgress progress(file, k, count);
        if (work.result(k) != OK)
            return ERROR;
        progress.complete();
    }
    return OK;
}

STATUS zncImageExtractLayers(OCI_IMAGE* image, const char* rootfsPath)
{
    const ZNC_IMAGE_MANIFEST* manifest = znc::chosen_manifest(image);
    if (manifest == nullptr)
        return fail(EINVAL);
    for (int i = 0; i < manifest->manifestLayersCount; ++i) {
        const char* file = manifest->manifestLayers[i].layerFileName;
        znc::LayerProgress progress(file, static_cast<std::uint32_t>(i), layer_total(*manifest));
        if (znc::extract_layer(file, rootfsPath) != OK)
            return ERROR;
        progress.complete();
    }
    return OK;
}

STATUS zncCreateOciStRootfs(OCI_IMAGE* image, char* rootfsPath, const char** ppLayerPath,
                            std::uint32_t layerNum)
{
    char chain[znc::kChainIdTextLen];
    if (zncImageGetStringChainID(image, chain) != OK)
        return ERROR;
    if (!compose(rootfsPath, kOverlayDir, chain))
        return fail(ENAMETOOLONG);
    return zncCreateOvlRootfsDev(rootfsPath, ppLayerPath, layerNum, FALSE);
}

STATUS zncImageGetStringChainID(OCI_IMAGE* image, char* pChanIdBuf)
{
    ZNC_IMAGE_MANIFEST* manifest = znc::chosen_manifest(image);
    if (manifest == nullptr)
        return fail(EINVAL);
    return zncUtilBinToHex(pChanIdBuf, znc::kChainIdTextLen,
                           manifest->manifestConfig.imageConfig.imageCfgRootfs.chainId,
                           znc::kSha256Len);
}

const char* pathCompBackup(const char* buf, const char* pos)
{
    while (pos > buf)
        if (*--pos == '/')
            return pos;
    return nullptr;
}

STATUS zncCreateDir(const char* dirName, mode_t mode)
{
    return ::mkdir(dirName, mode);
}

STATUS zncImageBundleDelete(const char* pBundlePath)
{
    if (pBundlePath == nullptr)
        return ERROR;
    const int before = errno;
    if (!exists(pBundlePath)) {
        errno = before; // nothing to delete has no number
        return ERROR;
    }
    return znc::delete_foreign_tree(pBundlePath);
}
