// zncLayerStage.hpp - a layer on its way into the store: extracted under a name of its own, renamed
// when it is whole and wanted. Used by the store and by who extracts ahead (zncStoreAhead).
//
// A lock file in the store tells live extractions from dead ones: who extracts holds it shared, who
// removes leftovers holds it exclusively. The locks belong to the open file, not to the process
// (F_OFD_SETLK of POSIX.1-2024), so they also hold between tasks of one process, and they end with
// their holder, however it ends.
#ifndef ZNCLAYERSTAGE_HPP
#define ZNCLAYERSTAGE_HPP

#include "zncOwned.hpp"
#include "zncontainer.h"

#include <atomic>
#include <string_view>

namespace znc {

using PathText = MallocPtr<char[]>;

// `base` followed by `name`; null with the task error number set when memory is short or it does
// not fit.
PathText path_in(std::string_view base, const char* name);

class StoreLock {
  public:
    StoreLock() = default;
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;
    ~StoreLock() { release(); }

    // Takes the lock shared, in a store that is made if need be; whoever can have it exclusively
    // before removes what the dead left.
    STATUS take(std::string_view base);
    void release() noexcept;

  private:
    STATUS open_locked();
    STATUS make_and_open(std::string_view base);
    void remove_leftovers(std::string_view base) const;

    PathText path_;
    UniqueFd fd_;
    bool alone_ = false;
};

class LayerStage {
  public:
    LayerStage() = default;
    LayerStage(const LayerStage&) = delete;
    LayerStage& operator=(const LayerStage&) = delete;
    ~LayerStage() { discard(); }

    // Extracts the archive beside its place in the store `base`. `*cancel`, where there is one,
    // ends that early.
    STATUS fill(const char* layerFile, std::string_view base,
                const std::atomic<bool>* cancel = nullptr);

    // Gives it its final name, unless another one was faster: that one stays then.
    STATUS publish(const char* name);

    // Removes what was extracted and not published, and lets the store go.
    void discard() noexcept;

  private:
    StoreLock lock_;
    PathText path_;
    bool made_ = false;
};

} // namespace znc

#endif
