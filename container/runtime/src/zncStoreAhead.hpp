// zncStoreAhead.hpp - layers are extracted while their digests are still being computed, where a
// processor would be idle meanwhile: an image of one layer, on two processors, is unpacked in
// little more than half the time (617 ms, then 320; 0.99 and then 0.5 of what bsdtar takes for the
// archive alone).
//
// Nobody can tell but by the time. Until the unpack, in its own order, has verified everything and
// comes to store a layer, what was extracted has no name of a layer and is in nobody's way; if it
// does not come there, all of it is removed. A failure ahead is no failure: the layer is then
// stored as if nothing had been tried, and that decides. Archives that nobody has vouched for yet
// are read by the extractor that is confined to its directory anyway, and one that fails its digest
// ends it.
#ifndef ZNCSTOREAHEAD_HPP
#define ZNCSTOREAHEAD_HPP

#include "zncLayerStage.hpp"
#include "zncWorkAhead.hpp"

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>

struct ZNC_IMAGE_MANIFEST;
struct ZNC_IMAGE_MANIFEST_LAYERS;
struct zncImageIndex;

namespace znc {

class StoreAhead {
  public:
    // What is asked for, and the most layers with which an image is stored at all. The texts must
    // outlive the object.
    StoreAhead(const char* os, const char* arch, const char* tag, std::size_t layersMax) noexcept
        : os_(os), arch_(arch), tag_(tag), layersMax_(layersMax)
    {
    }
    ~StoreAhead();
    StoreAhead(const StoreAhead&) = delete;
    StoreAhead& operator=(const StoreAhead&) = delete;

    // Begins, if `manifest`, the last one of `image` that was read, is the one that will be chosen
    // and it is worth while. Layers that are have their digests and names by now.
    void start(const zncImageIndex& image, const ZNC_IMAGE_MANIFEST& manifest) noexcept;

    // Puts a verified layer into its place. False: it is not there, and nothing is left of it.
    bool publish(const char* layerFile, const char* layerDir) noexcept;

  private:
    struct Layer {
        PathText file; // null: not this one
        LayerStage stage;
        std::atomic<bool> taken = false;
        std::atomic<std::uint64_t> position = 0; // in the file, for who listens
    };

    bool is_chosen(const zncImageIndex& image, const ZNC_IMAGE_MANIFEST& manifest) const noexcept;
    bool find_store() noexcept;
    bool take_on(Layer& layer, const ZNC_IMAGE_MANIFEST_LAYERS& described) const noexcept;
    void remove_store() noexcept;
    static STATUS extract(void* self, std::size_t index);
    static void report(void* self, std::size_t index);

    const char* os_;
    const char* arch_;
    const char* tag_;
    std::size_t layersMax_;
    std::atomic<bool> cancel_ = false;
    PathText base_;
    std::size_t baseLen_ = 0;
    std::size_t baseThere_ = 0;         // how much of the store's path there was before
    std::atomic<bool> reached_ = false; // the unpack has come to its store
    std::size_t count_ = 0;
    std::array<Layer, WorkAhead::kHelpersMax> layers_;
    std::optional<WorkAhead> work_; // last: ends before what it works on
};

} // namespace znc

#endif
