// zncImageLib_store.cpp - the layer store: one directory per layer, named by the digest of its
// archive and shared by all images. A layer is extracted into a temporary directory, which is
// renamed once it is complete, verified and on disk (zncLayerStage). A directory with a layer's
// name is therefore always complete, whenever a process was killed.
#include "zncImageLib.hpp"

#include "cJSON_Additions.h"
#include "zarnel/fs.h"
#include "zncBlob.hpp"
#include "zncLayerStage.hpp"
#include "zncProgress.hpp"
#include "zncStoreAhead.hpp"
#include "zncTarDryTree.hpp"
#include "zncTarLib.hpp"
#include "zncUnpackStore.hpp"
#include "zncWorkAhead.hpp"

#include <cstring>
#include <new>
#include <string_view>

#include <sys/stat.h>

using znc::fail;

namespace {

// bytes of layers from which helper threads pay off
constexpr std::int64_t kParallelMin = 1024 * 1024;

std::uint32_t layer_total(const ZNC_IMAGE_MANIFEST& manifest)
{
    return static_cast<std::uint32_t>(manifest.manifestLayersCount);
}

std::int64_t stored_size(const ZNC_IMAGE_MANIFEST& manifest)
{
    std::int64_t bytes = 0; // cannot overflow: the sizes were checked against the files
    for (int i = 0; i < manifest.manifestLayersCount; ++i)
        bytes += cJSON_integer64_value(manifest.manifestLayers[i].size);
    return bytes;
}

// Appends the directory name of a layer archive to `path`, whose first `baseLen` characters are the
// path of the store.
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

bool is_stored(const char* layerDir)
{
    struct stat st = {};
    return ::stat(layerDir, &st) == 0 && S_ISDIR(st.st_mode);
}

// Extracts the layers of an image that the store does not have, top layer first. Each layer is
// extracted into its own temporary directory, so that several threads can extract at the same
// time; publish() renames the directories when all of them are on disk.
class StoreJobs {
  public:
    StoreJobs(const ZNC_IMAGE_MANIFEST& manifest, std::string_view store, znc::StoreAhead* ahead,
              znc::UnpackDirs* dirs)
        : manifest_(manifest), store_(store), ahead_(ahead), dirs_(dirs)
    {
    }
    bool allocate()
    {
        stages_.reset(new (std::nothrow) znc::LayerStage[layer_total(manifest_)]);
        return stages_ != nullptr && duplicates_.find(file_name, this, layer_total(manifest_));
    }
    [[nodiscard]] const znc::Duplicates& duplicates() const { return duplicates_; }

    // The index of layer `k` in the manifest, which lists the bottom layer first.
    [[nodiscard]] std::size_t index(std::size_t k) const { return layer_total(manifest_) - 1 - k; }
    [[nodiscard]] const ZNC_IMAGE_MANIFEST_LAYERS& layer(std::size_t k) const
    {
        return manifest_.manifestLayers[index(k)];
    }
    [[nodiscard]] const char* file(std::size_t k) const { return layer(k).layerFileName; }

    static STATUS extract(void* self, std::size_t k)
    {
        return static_cast<StoreJobs*>(self)->extract(k);
    }

    // Renames the directories of the first `count` layers to their final names. Layers that the
    // store had already are skipped.
    STATUS publish(char* const* paths, std::size_t count)
    {
        bool any_new = false;
        for (std::size_t k = 0; k < count; ++k)
            any_new = any_new || stages_[k].path() != nullptr;
        if (!any_new)
            return OK;
        const znc::PathText store = znc::path_in(store_, "");
        if (!store || znFsSync(store.get()) != OK)
            return ERROR;
        for (std::size_t k = 0; k < count; ++k)
            if (stages_[k].path() != nullptr && stages_[k].publish(paths[k]) != OK)
                return ERROR;
        return znDirSync(store.get());
    }

    // Records the directories of the stored layers for later unpacks.
    void record_directories(std::size_t count) const
    {
        for (std::size_t k = 0; dirs_ != nullptr && k < count; ++k)
            dirs_->record(index(k), znc::store_base(store_), znc::last_component(file(k)));
    }

  private:
    STATUS extract(std::size_t k)
    {
        const auto path = znc::malloc_array<char>(znc::kPathMax);
        if (!path)
            return ERROR;
        std::memcpy(path.get(), store_.data(), store_.size());
        if (layer_directory(file(k), path.get(), store_.size()) != OK)
            return ERROR;
        if (duplicates_.last(index(k)) != index(k))
            return OK; // only the last of several equal layers is stored
        const std::size_t place = duplicates_.first(index(k));
        if (is_stored(path.get()) || (ahead_ != nullptr && ahead_->take(place, &stages_[k])))
            return is_listed(place) ? OK : extract_listed(k, place, nullptr);
        if (stages_[k].make(store_) == OK && extract_listed(k, place, stages_[k].path()) == OK)
            return OK;
        stages_[k].discard();
        return ERROR;
    }

    [[nodiscard]] bool is_listed(std::size_t place) const
    {
        return dirs_ == nullptr || !dirs_->wanted() || dirs_->has(place);
    }

    // Also lists the layer's directories, if they are wanted and not known yet. `dir` is null if
    // the store has the layer and only the list is missing.
    STATUS extract_listed(std::size_t k, std::size_t place, const char* dir)
    {
        znc::TextList list;
        const bool listed = is_listed(place);
        if (znc::extract_layer(file(k), cJSON_GetStringValue(layer(k).digest), dir, nullptr,
                               nullptr, listed ? nullptr : &list) != OK)
            return ERROR;
        if (!listed)
            dirs_->set(place, std::move(list));
        return OK;
    }

    static const char* file_name(void* self, std::size_t index)
    {
        return static_cast<StoreJobs*>(self)->manifest_.manifestLayers[index].layerFileName;
    }

    const ZNC_IMAGE_MANIFEST& manifest_;
    std::string_view store_;
    znc::StoreAhead* ahead_;
    znc::UnpackDirs* dirs_;
    znc::Duplicates duplicates_;
    std::unique_ptr<znc::LayerStage[]> stages_;
};

// Waits for the extractions in order, up to the first failure. Returns the number of layers
// extracted.
std::uint32_t extract_all(StoreJobs& jobs, znc::WorkAhead& work, znc::StoreAhead* ahead,
                          std::uint32_t count, STATUS* status)
{
    std::uint32_t told = ahead != nullptr ? ahead->reported() : 0;
    std::uint32_t k = 0;
    for (*status = OK; k < count; ++k) {
        if (ahead != nullptr && ahead->was_reported(jobs.index(k))) {
            *status = work.result(k);
        } else {
            znc::LayerProgress progress(jobs.file(k), told++, count);
            *status = work.result(k);
            if (*status == OK)
                progress.complete();
        }
        if (*status != OK)
            break;
    }
    return k;
}

} // namespace

std::string_view znc::store_base(std::string_view layers)
{
    const std::size_t slash = layers.rfind('/', layers.size() - 1);
    return layers.substr(0, slash != std::string_view::npos ? slash : 0);
}

STATUS znc::extract_layer(const char* layerFile, const char* digest, const char* dir,
                          const std::atomic<bool>* cancel, bool* verified, TextList* directories)
{
    BlobReader blob;
    errno = 0;
    if (!blob.open(layerFile, digest))
        return errno != 0 ? ERROR : fail(S_zncLib_MANIFEST_INVALID);
    TarDryTree tree;
    TarRun run;
    run.cancel = cancel;
    run.dry = dir == nullptr ? &tree : nullptr;
    run.directories = directories;
    const STATUS status = tar_extract_whole(blob, dir, kTarLayerBlocks, run);
    const int error = errno;
    if (cancel != nullptr && *cancel)
        return ERROR;
    const bool matches = blob.verified();
    if (verified != nullptr)
        *verified = matches;
    if (!matches)
        return fail(error == ENOMEM ? ENOMEM : S_zncLib_MANIFEST_INVALID);
    errno = error;
    return status;
}

STATUS zncImageExtractLayersEx(OCI_IMAGE* image, char* repositoryPath, std::size_t pathLen,
                               char** ppLayerPath)
{
    const ZNC_IMAGE_MANIFEST* manifest = znc::chosen_manifest(image);
    if (manifest == nullptr)
        return fail(EINVAL);
    const std::uint32_t count = layer_total(*manifest);
    // a copy: `repositoryPath` is overwritten below
    const auto store = znc::malloc_array<char>(znc::kPathMax);
    if (!store || pathLen >= znc::kPathMax)
        return ERROR;
    std::memcpy(store.get(), repositoryPath, pathLen);
    for (std::uint32_t k = 0; k < count; ++k) {
        const char* file = manifest->manifestLayers[count - 1 - k].layerFileName;
        if (layer_directory(file, repositoryPath, pathLen) != OK)
            return ERROR;
        std::memcpy(ppLayerPath[k], repositoryPath, std::strlen(repositoryPath) + 1);
    }
    znc::StoreLock own_lock;
    znc::StoreLock& lock = image->store != nullptr ? image->store->lock : own_lock;
    znc::StoreAhead* ahead = image->store != nullptr ? &image->store->ahead : nullptr;
    const std::string_view area(store.get(), pathLen);
    if (ahead != nullptr)
        ahead->keep_directories();
    if (ahead != nullptr && !ahead->is_for(*manifest))
        ahead = nullptr;
    if (lock.take(znc::store_base(area)) != OK || znMkdirParents(store.get(), 0700) != OK)
        return ERROR;
    znc::UnpackDirs* const dirs = image->store != nullptr ? &image->store->dirs : nullptr;
    StoreJobs jobs(*manifest, area, ahead, dirs);
    if (!jobs.allocate() || (dirs != nullptr && dirs->prepare(count) != OK))
        return ERROR;
    znc::WorkAhead work(StoreJobs::extract, &jobs, count);
    if (stored_size(*manifest) >= kParallelMin)
        work.start();
    STATUS status = OK;
    const std::uint32_t done = extract_all(jobs, work, ahead, count, &status);
    if (status == OK && dirs != nullptr)
        dirs->share(jobs.duplicates());
    if (status == OK) {
        if (jobs.publish(ppLayerPath, done) != OK)
            return ERROR;
        jobs.record_directories(done);
        return OK;
    }
    const znc::ErrnoSaver keep;
    (void)jobs.publish(ppLayerPath, done); // keep the layers extracted before the failure
    return ERROR;
}

STATUS zncImageExtractLayers(OCI_IMAGE* image, const char* rootfsPath)
{
    const ZNC_IMAGE_MANIFEST* manifest = znc::chosen_manifest(image);
    if (manifest == nullptr)
        return fail(EINVAL);
    znc::UnpackDirs* const dirs = image->store != nullptr ? &image->store->dirs : nullptr;
    if (dirs != nullptr && dirs->prepare(layer_total(*manifest)) != OK)
        return ERROR;
    for (std::uint32_t i = 0; i < layer_total(*manifest); ++i) {
        const ZNC_IMAGE_MANIFEST_LAYERS& layer = manifest->manifestLayers[i];
        const char* const file = layer.layerFileName;
        znc::LayerProgress progress(file, i, layer_total(*manifest));
        znc::TextList list;
        if (znc::extract_layer(file, cJSON_GetStringValue(layer.digest), rootfsPath, nullptr,
                               nullptr, dirs != nullptr && dirs->wanted() ? &list : nullptr) != OK)
            return ERROR;
        if (dirs != nullptr)
            dirs->set(i, std::move(list));
        progress.complete();
    }
    return OK;
}
