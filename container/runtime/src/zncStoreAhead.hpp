// zncStoreAhead.hpp - layers are extracted by the pass that verifies them: each archive is read
// once, and what is extracted is what was hashed.
//
// Nobody can tell but by the time. Until the unpack, in its own order, has verified everything and
// comes to store a layer, what was extracted has no name of a layer and is in nobody's way; if it
// does not come there, all of it is removed. A layer that cannot be extracted is no failure yet:
// its turn comes when it is stored, and that decides. Archives that nobody has vouched for yet are
// read by the extractor that is confined to its directory anyway.
#ifndef ZNCSTOREAHEAD_HPP
#define ZNCSTOREAHEAD_HPP

#include "zncLayerStage.hpp"
#include "zncStoreLock.hpp"
#include "zncUnpackDirs.hpp"

#include <atomic>
#include <cstdint>

struct ZNC_IMAGE_MANIFEST;
struct ZNC_IMAGE_MANIFEST_LAYERS;
struct zncImageIndex;

namespace znc {

class StoreAhead {
  public:
    // What is asked for, and the most layers with which an image is stored at all. The texts, the
    // lock and the directories must outlive the object.
    StoreAhead(const char* os, const char* arch, const char* tag, std::size_t layersMax,
               StoreLock& lock, UnpackDirs& dirs) noexcept
        : os_(os), arch_(arch), tag_(tag), layersMax_(layersMax), lock_(lock), dirs_(dirs)
    {
    }
    ~StoreAhead();
    StoreAhead(const StoreAhead&) = delete;
    StoreAhead& operator=(const StoreAhead&) = delete;

    // Takes on the layers of `manifest`, the last one of `image` that was read, if it is the one
    // that will be chosen.
    void prepare(const zncImageIndex& image, const ZNC_IMAGE_MANIFEST& manifest) noexcept;
    [[nodiscard]] bool is_for(const ZNC_IMAGE_MANIFEST& manifest) const noexcept
    {
        return manifest_ == &manifest;
    }

    // Whether it will be extracted: its file and digest are known by now, and the store lacks it.
    [[nodiscard]] bool wants(std::size_t index) const noexcept;
    // Whether the layer's archive is what its digest names; extracts it while it is at it, unless
    // the store has it, and lists its directories. Of different layers in several tasks at once.
    STATUS verify(std::size_t index) noexcept;
    // How much of its archive has been read, for who listens.
    [[nodiscard]] const std::atomic<std::uint64_t>& position(std::size_t index) const noexcept
    {
        return layers_[index].position;
    }
    [[nodiscard]] bool was_extracted(std::size_t index) const noexcept
    {
        return layers_[index].extracted;
    }

    // Moves what was extracted of a verified layer into `stage`. False: there is nothing. Of
    // different layers in several tasks at once, which is why it goes by the place in the manifest:
    // one archive may have several.
    bool take(std::size_t index, LayerStage* stage) noexcept;
    // The unpack has come to its store, which stays now whatever happens.
    void reached() noexcept { reached_ = true; }

    // How many layers a listener has been told of as complete, and whether a layer is among them.
    [[nodiscard]] std::uint32_t told() const noexcept { return told_; }
    void tell_one() noexcept { told_++; }
    [[nodiscard]] bool was_told(std::size_t index) const noexcept;

  private:
    struct Layer {
        LayerStage stage;
        std::atomic<bool> extracted = false;
        std::atomic<std::uint64_t> position = 0; // in the file, for who listens
    };

    bool is_chosen(const zncImageIndex& image, const ZNC_IMAGE_MANIFEST& manifest) const noexcept;
    bool find_store() noexcept;
    void remove_store() noexcept;

    const char* os_;
    const char* arch_;
    const char* tag_;
    std::size_t layersMax_;
    StoreLock& lock_;
    UnpackDirs& dirs_;
    PathText store_; // the directory of the layers
    std::size_t storeLen_ = 0;
    std::size_t storeThere_ = 0; // how much of its path there was before
    bool reached_ = false;
    std::uint32_t told_ = 0;
    const ZNC_IMAGE_MANIFEST* manifest_ = nullptr; // null: none was taken on
    std::size_t count_ = 0;
    std::unique_ptr<Layer[]> layers_;
};

} // namespace znc

#endif
