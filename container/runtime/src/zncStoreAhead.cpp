// zncStoreAhead.cpp - see zncStoreAhead.hpp.
#include "zncStoreAhead.hpp"

#include "zarnel/fs.h"
#include "zncImageLib.hpp"
#include "zncPath.hpp"
#include "zncProgress.hpp"

#include <cstring>
#include <new>

namespace znc {

StoreAhead::~StoreAhead()
{
    const ErrnoSaver keep;
    layers_.reset();
    if (manifest_ != nullptr && !keep_directories_) {
        lock_.release();
        remove_store();
    }
}

bool StoreAhead::is_chosen(const zncImageIndex& image,
                           const ZNC_IMAGE_MANIFEST& manifest) const noexcept
{
    // Manifests that have not been parsed yet never match.
    const int index = zncImageFindManifest(&image, os_, arch_, tag_);
    return index >= 0 && &image.manifests[index] == &manifest;
}

// Determines the path of the store, and the length of the part of it that exists already.
bool StoreAhead::find_store() noexcept
{
    store_ = malloc_array<char>(kPathMax);
    storeLen_ = store_ ? base_path_text(store_.get(), kPathMax, ZNC_LAYER_PATH) : 0;
    for (existingLen_ = storeLen_; existingLen_ > 1; --existingLen_) {
        const char next = store_[existingLen_];
        store_[existingLen_] = '\0';
        const bool present = (next == '\0' || next == '/') && exists(store_.get());
        store_[existingLen_] = next;
        if (present)
            break;
    }
    return storeLen_ > 0;
}

void StoreAhead::prepare(const zncImageIndex& image, const ZNC_IMAGE_MANIFEST& manifest) noexcept
{
    const ErrnoSaver keep;
    const auto count = static_cast<std::size_t>(manifest.manifestLayersCount);
    if (manifest_ != nullptr || count > layersMax_ || !is_chosen(image, manifest) || !find_store())
        return;
    layers_.reset(new (std::nothrow) Layer[count]);
    if (!layers_)
        return;
    count_ = count;
    if (dirs_.prepare(count) != OK) {
        layers_.reset();
        return;
    }
    manifest_ = &manifest; // from here on the destructor removes what was created
    if (lock_.take(store_base({store_.get(), storeLen_})) != OK ||
        znMkdirParents(store_.get(), 0700) != OK)
        layers_.reset();
}

bool StoreAhead::wants(std::size_t index) const noexcept
{
    const ErrnoSaver keep;
    const char* const name = std::strrchr(manifest_->manifestLayers[index].layerFileName, '/');
    const PathText stored =
        layers_ && name != nullptr ? path_in({store_.get(), storeLen_}, name) : PathText();
    return stored && !exists(stored.get());
}

// Takes the directories of a stored layer from their record, if there is one.
bool StoreAhead::is_recorded(std::size_t index) noexcept
{
    return layers_ && dirs_.read(index, store_base({store_.get(), storeLen_}),
                                 last_component(manifest_->manifestLayers[index].layerFileName));
}

STATUS StoreAhead::verify(std::size_t index) noexcept
{
    const ZNC_IMAGE_MANIFEST_LAYERS& described = manifest_->manifestLayers[index];
    const char* const digest = cJSON_GetStringValue(described.digest);
    TextList listed;
    TextList* const list = dirs_.wanted() ? &listed : nullptr;
    bool verified = false;
    bool whole = false;
    if (wants(index) && layers_[index].stage.make({store_.get(), storeLen_}) == OK) {
        Layer& layer = layers_[index];
        const ProgressElsewhere elsewhere(layer.position);
        whole = extract_layer(described.layerFileName, digest, layer.stage.path(), nullptr,
                              &verified, list) == OK;
        layer.extracted = whole;
        if (!whole)
            layer.stage.discard();
    } else if (list != nullptr && !is_recorded(index)) {
        whole =
            extract_layer(described.layerFileName, digest, nullptr, nullptr, &verified, list) == OK;
    }
    if (whole && list != nullptr)
        dirs_.set(index, std::move(listed));
    return verified ? OK : validateJsonDigest(described.layerFileName, described.digest);
}

bool StoreAhead::take(std::size_t index, LayerStage* stage) noexcept
{
    if (!was_reported(index) || layers_[index].stage.path() == nullptr)
        return false;
    *stage = std::move(layers_[index].stage);
    return true;
}

bool StoreAhead::was_reported(std::size_t index) const noexcept
{
    return layers_ && index < count_ && layers_[index].extracted;
}

// Removes the directories of the store's path that prepare() created, as long as they are empty.
void StoreAhead::remove_store() noexcept
{
    for (std::size_t len = storeLen_; len > existingLen_; --len) {
        const char next = store_[len];
        store_[len] = '\0';
        if ((next == '\0' || next == '/') && store_[len - 1] != '/' && ::rmdir(store_.get()) != 0)
            return;
        store_[len] = next;
    }
}

} // namespace znc
