// zncLayerStage.hpp - a temporary directory in the store. A layer or a flattened tree is extracted
// into one and renamed once it is complete and verified; what is to be removed is moved into one
// first and then deleted. The lock of the store (zncStoreLock) must be held while a stage exists: a
// temporary directory found by the holder of the exclusive lock belongs to a process that died.
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
    ~LayerStage() { discard(); }

    // Creates an empty temporary directory in `area`, a subdirectory of the storage base.
    STATUS make(std::string_view area);
    // The path of the directory; null if there is none.
    [[nodiscard]] const char* path() const { return path_.get(); }

    // Calls make() and extracts the archive into the directory; see extract_layer().
    STATUS fill(const char* layerFile, const char* digest, std::string_view area,
                const std::atomic<bool>* cancel = nullptr, bool* verified = nullptr,
                TextList* directories = nullptr);

    // Renames the directory to `name`. If a directory of that name exists already, that is OK too:
    // the existing one stays, and path() is not null afterwards.
    STATUS publish(const char* name);
    // Renames the directory `name` to this stage's path, replacing the empty directory atomically.
    STATUS replace_with(const char* name);

    // Deletes the directory unless it was published.
    void discard() noexcept;
    // Gives up ownership without deleting the directory.
    void abandon() noexcept { path_.reset(); }

  private:
    PathText path_;
};

// Lists the temporary directories in the storage base that processes which died left behind, and
// removes the records of flattened trees that do not exist. The caller holds the exclusive lock.
// delete_leftovers() needs no exclusive lock: nothing else uses these directories.
STATUS find_leftovers(std::string_view base, TextList* paths);
void delete_leftovers(const TextList& paths);

} // namespace znc

#endif
