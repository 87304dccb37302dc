// zncImageLib.cpp - turns an image into a bundle: creates the bundle directory, one of the three
// kinds of root filesystem, and "config.json". Runs in the caller's process and keeps no state
// between calls.
#include "zncImageLib.hpp"

#include "zarnel/fs.h"
#include "zarnel/overlay.h"
#include "zncStoreTree.hpp"
#include "zncTreeDelete.hpp"
#include "zncUnpackStore.hpp"

#include <cstring>
#include <string_view>

#include <sys/stat.h>

using znc::exists;
using znc::fail;

namespace {

constexpr char kOverlayDir[] = "/overlay/";

// Concatenates `first` and `second` into a buffer of kPathMax bytes; false if they do not fit.
bool compose(char* path, const char* first, const char* second)
{
    char* const end = path + znc::kPathMax;
    return znc::copy_end(znc::copy_end(path, end, first), end, second) != end;
}

// The paths of the layer directories, top layer first: the order that overlayfs expects.
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

// The directory names, inside the store, of the image's layers, in manifest order (bottom layer
// first).
bool layer_names(const ZNC_IMAGE_MANIFEST& manifest, znc::TextList* names)
{
    bool added = true;
    for (int i = 0; added && i < manifest.manifestLayersCount; ++i)
        added = names->add(znc::last_component(manifest.manifestLayers[i].layerFileName));
    return added;
}

// Whether overlayfs can stack the layers of the image; a layer that occurs twice counts once. This
// is checked before the layers are extracted: creating the overlay device would fail only after all
// that work.
bool can_be_stacked(const ZNC_IMAGE_MANIFEST& manifest)
{
    const int most = static_cast<int>(znOvlDirsMax());
    if (manifest.manifestLayersCount <= most)
        return true;
    znc::TextList names;
    int distinct = 0;
    for (int i = 0; i < manifest.manifestLayersCount && distinct <= most; ++i) {
        const char* const name = znc::last_component(manifest.manifestLayers[i].layerFileName);
        if (names.contains(name))
            continue;
        if (!names.add(name))
            return false;
        ++distinct;
    }
    return distinct <= most;
}

// Records that the bundle needs its root and the layers `stored`, so that zncStoreCollect does not
// remove them, and in the bundle of which `layers` its root is made. The records must be on disk
// before the bundle has its "config.json"; without that file the bundle does not count as existing
// and the records have no effect.
STATUS record_bundle(OCI_IMAGE* image, const char* bundle, const char* root, std::string_view base,
                     const znc::TextList& layers, const znc::TextList& stored)
{
    return image->store != nullptr ? image->store->record.write(base, bundle, root, layers, stored)
                                   : OK;
}

STATUS layered_root(OCI_IMAGE* image, const char* bundle, char* root, const LayerPaths& layers,
                    std::size_t count)
{
    const std::size_t len = zncBasePathGet(root, znc::kPathMax, ZNC_LAYER_PATH);
    const znc::PathText area = len != 0 ? znc::path_in({root, len}, "") : nullptr;
    znc::TextList names;
    if (area && count > 1 && !can_be_stacked(*znc::chosen_manifest(image)))
        return fail(EINVAL); // the error of the kernel in this case
    if (!area || zncImageExtractLayersEx(image, root, len, layers.get()) != OK ||
        !layer_names(*znc::chosen_manifest(image), &names))
        return ERROR;
    const std::string_view base = znc::store_base({area.get(), len});
    if (count < 2) // the name of the root is the digest of its contents: no layers are recorded
        return compose(root, layers.get()[0], "")
                   ? record_bundle(image, bundle, root, base, znc::TextList(), names)
                   : fail(ENAMETOOLONG);
    // Write the record before the overlay device is created. A device without a record would never
    // be removed by a collection.
    char chain[znc::kChainIdTextLen];
    if (zncImageGetStringChainID(image, chain) != OK || !compose(root, kOverlayDir, chain) ||
        record_bundle(image, bundle, root, base, names, names) != OK)
        return ERROR;
    return zncCreateOciStRootfs(image, root, const_cast<const char**>(layers.get()),
                                static_cast<std::uint32_t>(count));
}

// Extracts the layers into a temporary directory in `area`, the parent directory of the flattened
// trees, and then renames the result to `root`. The last component of `root` is the chain ID.
STATUS flatten(OCI_IMAGE* image, std::string_view area, const char* root,
               const znc::TextList& layers)
{
    bool is_new = false;
    if (znc::claim_tree(znc::store_base(area), znc::last_component(root), layers, &is_new) != OK)
        return ERROR;
    const bool unrecorded = is_new && exists(root);
    znc::LayerStage stage;
    if (stage.make(area) != OK || zncImageExtractLayers(image, stage.path()) != OK ||
        znFsSync(stage.path()) != OK || znc::place_tree(stage, root, unrecorded) != OK)
        return ERROR;
    const znc::PathText dir = znc::path_in(area, "");
    return dir ? znDirSync(dir.get()) : ERROR;
}

STATUS flattened_root(OCI_IMAGE* image, const char* bundle, char* root)
{
    const std::size_t len = zncBasePathGet(root, znc::kPathMax, ZNC_FLATTENED_PATH);
    char chain[znc::kChainIdTextLen];
    if (len == 0 || zncImageGetStringChainID(image, chain) != OK)
        return ERROR;
    char* const end = root + znc::kPathMax;
    if (znc::copy_end(root + len, end, chain) == end)
        return fail(ENAMETOOLONG);
    znc::StoreLock own_lock;
    znc::StoreLock& lock = image->store != nullptr ? image->store->lock : own_lock;
    const std::string_view area(root, len - 1);
    znc::TextList layers;
    if (!layer_names(*znc::chosen_manifest(image), &layers) ||
        lock.take(znc::store_base(area)) != OK || flatten(image, area, root, layers) != OK)
        return ERROR;
    return record_bundle(image, bundle, root, znc::store_base(area), layers, znc::TextList());
}

STATUS raw_root(OCI_IMAGE* image, const char* bundle, char* root)
{
    if (!compose(root, bundle, "/rootfs"))
        return fail(ENAMETOOLONG);
    if (zncImageExtractLayers(image, root) != OK)
        return ERROR;
    return compose(root, "rootfs", "") ? OK : ERROR;
}

// "config.json" is written last: a bundle that has one is complete and on disk.
STATUS configure(OCI_IMAGE* image, const char* bundle, int type, const char* root, char* path)
{
    if (type == RAW_ROOTFS && znFsSync(bundle) != OK)
        return ERROR;
    errno = 0; // a path that is too long is reported with errno 0
    if (!compose(path, bundle, "/config.json"))
        return ERROR;
    if (image->store != nullptr && image->store->record.bundle_was_there())
        return fail(S_zncLib_BUNDLE_CONFIG_EXISTS);
    if (zncCreateOciBundleConfig(image, path, root) != OK || znDirSync(bundle) != OK)
        return ERROR;
    if (image->store != nullptr)
        image->store->record.keep();
    return OK;
}

// Creates the contents of a bundle directory. `path` is a scratch buffer of kPathMax bytes.
STATUS fill_bundle(OCI_IMAGE* image, const char* bundle, int type, char* path)
{
    if (!compose(path, bundle, "/rootfs"))
        return fail(S_zncLib_BUNDLE_PATH_TOO_LONG);
    if (zncCreateOciBundleRootfs(path) != OK)
        return ERROR;
    const znc::MallocPtr<char> root(zncCreateOciRootfs(image, bundle, type));
    if (!root)
        return ERROR;
    if (configure(image, bundle, type, root.get(), path) == OK)
        return OK;
    const znc::ErrnoSaver keep;
    // The device can only be the one created above: creating a device whose name exists fails.
    if (std::string_view(root.get()).starts_with(kOverlayDir))
        (void)zncRemoveOvlRootfsDev(root.get());
    return ERROR;
}

// The largest number of layers with which an image of this root filesystem type is extracted into
// the layer store, before its root is made. A flattened image of several layers is extracted into a
// tree of its own instead.
std::size_t stored_layers_max(int type)
{
    switch (type) {
    case LAYERED_ROOTFS:
        return znOvlDirsMax();
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
    return zncUnpackDirs(bundlePath, ociPath, tag, option, pAttr, nullptr, nullptr);
}

STATUS zncUnpackDirs(const char* bundlePath, const char* ociPath, const char* tag,
                     unsigned int option, const ZNC_BUNDLE_ATTR* pAttr, ZNC_DIRECTORY_FUNC func,
                     void* context)
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
    znc::UnpackStore store(os, arch, name, stored_layers_max(type), func, context);
    image->store = &store;
    image->ociPath = ociPath;
    if (zncImageParse(image.get()) != OK)
        return ERROR;
    image->manifestsIndex = zncImageFindManifest(image.get(), os, arch, name);
    if (image->manifestsIndex < 0)
        return ERROR;
    if (zncImageGenerateBundle(image.get(), bundlePath, type) != OK)
        return ERROR;
    store.dirs.tell();
    return OK;
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
    // Remove the records before the bundle's directory: once the directory is gone, another unpack
    // may create it and write records of the same names.
    if (image->store != nullptr)
        image->store->record.drop();
    // zncImageBundleDelete() fails for a path too long for its buffers. Nothing can have been
    // created in such a directory either, so that rmdir() is enough.
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
        status = layered_root(image, bundleRootfs, root.get(), layers, count);
    else if (rootfsType == FLATTENDED_ROOTFS)
        status = flattened_root(image, bundleRootfs, root.get());
    else if (rootfsType == RAW_ROOTFS)
        status = raw_root(image, bundleRootfs, root.get());
    return status == OK ? root.release() : nullptr;
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
