// zncUnpackDirs.hpp - collects the directories that the layers of an image name, for the callback
// of zncUnpackDirs. They are listed in the same pass over a layer's archive that computes its
// digest: while the layer is extracted or, if the store has it already, in a dry run. Used by the
// image module.
#ifndef ZNCUNPACKDIRS_HPP
#define ZNCUNPACKDIRS_HPP

#include "zncDuplicates.hpp"
#include "zncStoreRecord.hpp"

#include <memory>
#include <utility>

namespace znc {

class UnpackDirs {
  public:
    UnpackDirs(ZNC_DIRECTORY_FUNC func, void* context) noexcept : func_(func), context_(context) {}

    // Whether directories have to be listed at all.
    [[nodiscard]] bool wanted() const noexcept { return func_ != nullptr; }
    // Must be called first. A second call has no effect. ERROR: out of memory.
    [[nodiscard]] STATUS prepare(std::size_t layers) noexcept;

    // has() and set() may run in several threads at once, for different layers.
    [[nodiscard]] bool has(std::size_t layer) const noexcept
    {
        return layer < count_ && layers_[layer].listed;
    }
    // Stores the directories of a layer whose archive matched its digest.
    void set(std::size_t layer, TextList list) noexcept
    {
        if (layer < count_)
            layers_[layer] = {std::move(list), true, false, layer};
    }

    // Takes the list of a layer that is stored in `base` from its record, if it has one.
    bool read(std::size_t layer, std::string_view base, const char* name) noexcept;
    // Records the list of a layer that is stored in `base`, unless there is none or it was read.
    void record(std::size_t layer, std::string_view base, const char* name) const noexcept;

    // Makes each layer without a list use the list of the first layer equal to it.
    void share(const Duplicates& duplicates) noexcept;
    // Calls the callback for all directories, lowest layer first.
    void tell() const noexcept;

  private:
    struct Layer {
        TextList list;
        bool listed = false;
        bool recorded = false;
        std::size_t same_as = 0; // the layer whose list is used; its own index if `listed`
    };
    ZNC_DIRECTORY_FUNC func_;
    void* context_;
    std::unique_ptr<Layer[]> layers_;
    std::size_t count_ = 0;
};

} // namespace znc

#endif
