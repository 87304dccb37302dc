// zncUnpackDirs.hpp - the directories that the layers of an image name, for a caller of
// zncUnpackDirs. They come from the pass over a layer's archive that is compared with its digest,
// whether that extracts the layer or, where the store has it, is a dry run. Used by the units of
// the image module.
#ifndef ZNCUNPACKDIRS_HPP
#define ZNCUNPACKDIRS_HPP

#include "zncDuplicates.hpp"
#include "zncStoreRecord.hpp"

#include <memory>
#include <new>
#include <utility>

namespace znc {

class UnpackDirs {
  public:
    UnpackDirs(ZNC_DIRECTORY_FUNC func, void* context) noexcept : func_(func), context_(context) {}

    // False: nothing has to be listed.
    [[nodiscard]] bool wanted() const noexcept { return func_ != nullptr; }
    // Before anything else, once for an image. ERROR: no memory.
    [[nodiscard]] STATUS prepare(std::size_t layers) noexcept;

    // Of different layers in several tasks at once.
    [[nodiscard]] bool has(std::size_t layer) const noexcept
    {
        return layer < count_ && layers_[layer].listed;
    }
    // What a verified pass over a layer's archive listed.
    void set(std::size_t layer, TextList list) noexcept
    {
        if (layer < count_)
            layers_[layer] = {std::move(list), true, layer};
    }

    // Lets a layer that was not listed have the list of the first layer that is the same.
    void share(const Duplicates& duplicates) noexcept;
    // Calls the function, for the bottom layer first.
    void tell() const noexcept;

  private:
    struct Layer {
        TextList list;
        bool listed = false;
        std::size_t same_as = 0; // the layer whose list this is, if it has none of its own
    };
    ZNC_DIRECTORY_FUNC func_;
    void* context_;
    std::unique_ptr<Layer[]> layers_;
    std::size_t count_ = 0;
};

} // namespace znc

#endif
