// zncStoreAhead.hpp - extracts layers in the same pass that verifies their digests, so that each
// archive is read only once and what is extracted is exactly what was hashed.
//
// Apart from the time, the result is the same as verifying first and extracting later. The layers
// are extracted into temporary directories, which get their final names only after the unpack has
// verified the whole image; if it fails before, they are removed. A layer that cannot be extracted
// is not an error at this point: the unpack extracts it again when it stores it, and that result
// counts. The archives are not verified yet when they are extracted. That is safe because the
// extractor never writes outside its directory.
#ifndef ZNCSTOREAHEAD_HPP
#define ZNCSTOREAHEAD_HPP

#include "base/not_copied.hpp"
#include "zncLayerStage.hpp"
#include "zncStoreLock.hpp"
#include "zncUnpackDirs.hpp"

#include <atomic>
#include <cstdint>

struct ZNC_IMAGE_MANIFEST;
struct ZNC_IMAGE_MANIFEST_LAYERS;
struct zncImageIndex;

namespace znc {

class StoreAhead : znc::NotCopied {
  public:
    // The requested platform and tag, and the largest number of layers with which an image goes
    // into the layer store. The strings, the lock and `dirs` must outlive the object.
    StoreAhead(const char* os, const char* arch, const char* tag, std::size_t layersMax,
               StoreLock& lock, UnpackDirs& dirs) noexcept
        : os_(os), arch_(arch), tag_(tag), layersMax_(layersMax), lock_(lock), dirs_(dirs)
    {
    }
    ~StoreAhead();

    // Prepares to extract the layers of `manifest`, the manifest of `image` parsed last, if it is
    // the one that zncImageFindManifest will choose.
    void prepare(const zncImageIndex& image, const ZNC_IMAGE_MANIFEST& manifest) noexcept;
    [[nodiscard]] bool is_for(const ZNC_IMAGE_MANIFEST& manifest) const noexcept
    {
        return manifest_ == &manifest;
    }

    // Whether the layer will be extracted: the store does not have it. Its file name and digest
    // must be set.
    [[nodiscard]] bool wants(std::size_t index) const noexcept;
    // Checks the layer's archive against its digest; extracts it in the same pass unless the store
    // has the layer, and lists its directories if `dirs` wants them. May run in several threads at
    // once, for different layers.
    STATUS verify(std::size_t index) noexcept;
    // How many bytes of the archive have been read, for the progress callback.
    [[nodiscard]] const std::atomic<std::uint64_t>& position(std::size_t index) const noexcept
    {
        return layers_[index].position;
    }
    [[nodiscard]] bool was_extracted(std::size_t index) const noexcept
    {
        return layers_[index].extracted;
    }

    // Moves the extracted directory of a layer into `stage`; false if there is none. May run in
    // several threads at once, for different layers. The key is the index in the manifest, not the
    // digest: several layers may have the same archive.
    bool take(std::size_t index, LayerStage* stage) noexcept;
    // To be called when the unpack starts to use the store; then the destructor no longer removes
    // the created directories.
    void keep_directories() noexcept { keep_directories_ = true; }

    // The number of layers reported to the progress callback as complete, and whether a given layer
    // is one of them.
    [[nodiscard]] std::uint32_t reported() const noexcept { return reported_; }
    void tell_one() noexcept { reported_++; }
    [[nodiscard]] bool was_reported(std::size_t index) const noexcept;

  private:
    struct Layer {
        LayerStage stage;
        std::atomic<bool> extracted = false;
        std::atomic<std::uint64_t> position = 0; // offset in the archive, for the progress callback
    };

    bool is_chosen(const zncImageIndex& image, const ZNC_IMAGE_MANIFEST& manifest) const noexcept;
    bool find_store() noexcept;
    bool is_recorded(std::size_t index) noexcept;
    void remove_store() noexcept;

    const char* os_;
    const char* arch_;
    const char* tag_;
    std::size_t layersMax_;
    StoreLock& lock_;
    UnpackDirs& dirs_;
    PathText store_; // the directory of the layers
    std::size_t storeLen_ = 0;
    std::size_t existingLen_ = 0; // length of the part of its path that existed before
    bool keep_directories_ = false;
    std::uint32_t reported_ = 0;
    const ZNC_IMAGE_MANIFEST* manifest_ = nullptr; // null: prepare() did not select any
    std::size_t count_ = 0;
    std::unique_ptr<Layer[]> layers_;
};

} // namespace znc

#endif
