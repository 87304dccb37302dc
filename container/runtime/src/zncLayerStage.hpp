// zncLayerStage.hpp - a directory of the store on its way: a layer or a flattened tree is extracted
// under a name of its own and renamed when it is whole, verified and wanted; what is removed is
// renamed first and then deleted. Whoever uses one holds the lock of the store (zncStoreLock), so
// that what a dead process left can be told from what a live one is at.
#ifndef ZNCLAYERSTAGE_HPP
#define ZNCLAYERSTAGE_HPP

#include "zncStoreRecord.hpp"

#include <atomic>
#include <string_view>
#include <utility>

namespace znc {

class LayerStage {
  public:
    LayerStage() = default;
    LayerStage(LayerStage&&) = default;
    LayerStage& operator=(LayerStage&& other) noexcept
    {
        discard();
        path_ = std::move(other.path_);
        return *this;
    }
    LayerStage(const LayerStage&) = delete;
    LayerStage& operator=(const LayerStage&) = delete;
    ~LayerStage() { discard(); }

    // Makes an empty directory in `area`.
    STATUS make(std::string_view area);
    // What there is of it; null: nothing.
    [[nodiscard]] const char* path() const { return path_.get(); }

    // make(), and the archive extracted into it (extract_layer).
    STATUS fill(const char* layerFile, const char* digest, std::string_view area,
                const std::atomic<bool>* cancel = nullptr, bool* verified = nullptr,
                TextList* directories = nullptr);

    // Gives it its final name, unless another one was faster: that one stays then.
    STATUS publish(const char* name);
    // Takes the directory `name` in its place, in one step: what has that name no longer is.
    STATUS take_in(const char* name);

    // Deletes what was not published.
    void discard() noexcept;
    // Leaves it where it is.
    void abandon() noexcept { path_.reset(); }

  private:
    PathText path_;
};

// Finds what extractions and removals that are dead have left in the base, and the records of trees
// that never came to be, which go at once. Under the exclusive lock.
STATUS find_leftovers(std::string_view base, TextList* paths);
void delete_leftovers(const TextList& paths);

} // namespace znc

#endif
