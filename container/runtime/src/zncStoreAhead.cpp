// zncStoreAhead.cpp - see zncStoreAhead.hpp.
#include "zncStoreAhead.hpp"

#include "cJSON_Additions.h"
#include "zncImageLib.hpp"
#include "zncPath.hpp"
#include "zncProgress.hpp"

#include <algorithm>
#include <cstring>
#include <string_view>

#include <sys/stat.h>

namespace {

constexpr std::int64_t kWorthwhile = 1024 * 1024; // bytes of a layer that are worth a helper task

// Reading it is neither in vain from the start nor does it hold anybody up.
bool may_be_read(const ZNC_IMAGE_MANIFEST_LAYERS& layer)
{
    const char* const digest = cJSON_GetStringValue(layer.digest);
    struct stat st = {};
    return digest != nullptr && std::strchr(digest, '/') == nullptr &&
           znc::open_blob(layer.layerFileName, &st) && st.st_size >= kWorthwhile;
}

} // namespace

namespace znc {

StoreAhead::~StoreAhead()
{
    const ErrnoSaver keep;
    cancel_ = true;
    work_.reset();
    for (Layer& layer : layers_)
        layer.stage.discard();
    if (count_ > 0 && !reached_)
        remove_store();
}

bool StoreAhead::is_chosen(const zncImageIndex& image,
                           const ZNC_IMAGE_MANIFEST& manifest) const noexcept
{
    // Of the manifests that have not been read yet none matches.
    const int index = zncImageFindManifest(&image, os_, arch_, tag_);
    return index >= 0 && &image.manifests[index] == &manifest;
}

// The store's path, and how much of it is there.
bool StoreAhead::find_store() noexcept
{
    base_ = malloc_array<char>(kPathMax);
    baseLen_ = base_ ? base_path_text(base_.get(), kPathMax, ZNC_LAYER_PATH) : 0;
    for (baseThere_ = baseLen_; baseThere_ > 1; --baseThere_) {
        const char next = base_[baseThere_];
        base_[baseThere_] = '\0';
        const bool there = (next == '\0' || next == '/') && exists(base_.get());
        base_[baseThere_] = next;
        if (there)
            break;
    }
    return baseLen_ > 0;
}

bool StoreAhead::take_on(Layer& layer, const ZNC_IMAGE_MANIFEST_LAYERS& described) const noexcept
{
    const char* const name = std::strrchr(described.layerFileName, '/');
    if (name == nullptr || !may_be_read(described))
        return false;
    const PathText stored = path_in({base_.get(), baseLen_}, name);
    if (!stored || exists(stored.get()))
        return false;
    layer.file = path_in(described.layerFileName, "");
    return layer.file != nullptr;
}

void StoreAhead::start(const zncImageIndex& image, const ZNC_IMAGE_MANIFEST& manifest) noexcept
{
    const ErrnoSaver keep;
    const auto count = static_cast<std::size_t>(manifest.manifestLayersCount);
    // The digests of the layers take a processor each.
    const std::size_t idle = WorkAhead::processors_beside(count);
    if (count_ > 0 || idle == 0 || count > std::min(layersMax_, layers_.size()) ||
        !is_chosen(image, manifest) || !find_store())
        return;
    work_.emplace(extract, this, count);
    std::size_t wanted = 0;
    for (std::size_t i = 0; i < count; ++i)
        if (take_on(layers_[i], manifest.manifestLayers[i]))
            ++wanted;
        else
            work_->exclude(i);
    if (wanted == 0)
        return;
    count_ = count;
    work_->start_helpers(std::min(idle, wanted));
}

STATUS StoreAhead::extract(void* self, std::size_t index)
{
    auto& ahead = *static_cast<StoreAhead*>(self);
    Layer& layer = ahead.layers_[index];
    const ProgressElsewhere elsewhere(layer.position);
    return layer.stage.fill(layer.file.get(), {ahead.base_.get(), ahead.baseLen_}, &ahead.cancel_);
}

void StoreAhead::report(void* self, std::size_t index)
{
    progress_follow(static_cast<StoreAhead*>(self)->layers_[index].position);
}

bool StoreAhead::publish(const char* layerFile, const char* layerDir) noexcept
{
    reached_ = true;
    for (std::size_t i = 0; i < count_; ++i) {
        Layer& layer = layers_[i];
        // An image may name a layer twice.
        if (!layer.file || std::strcmp(layer.file.get(), layerFile) != 0 ||
            layer.taken.exchange(true))
            continue;
        const bool published =
            work_->result(i, report) == OK && layer.stage.publish(layerDir) == OK;
        layer.stage.discard();
        return published;
    }
    return false;
}

// A store that this made and nothing came into goes again, as if it had not been made.
void StoreAhead::remove_store() noexcept
{
    for (std::size_t len = baseLen_; len > baseThere_; --len) {
        const char next = base_[len];
        base_[len] = '\0';
        if ((next == '\0' || next == '/') && base_[len - 1] != '/' && ::rmdir(base_.get()) != 0)
            return;
        base_[len] = next;
    }
}

} // namespace znc
