// bundle_area.hpp - the directory of the bundles that `run` makes of images, in the storage base:
// who may make one when, and which are whole. Used by store.
#ifndef ZNC_CLI_IMAGES_BUNDLE_AREA_HPP
#define ZNC_CLI_IMAGES_BUNDLE_AREA_HPP

#include <memory>
#include <string>

#include "front/named_lock.hpp"

namespace zncctl {

// The directory, made unless it is there. Throws std::runtime_error when it cannot be used, or when
// anybody but this user can write to it.
std::string bundle_area();

// Holds the collection of unused bundles off: from before a bundle is looked for until there is a
// container of it, shared by all who do. A collection takes it alone, and does not wait.
class BundlesInUse {
  public:
    // Throws std::runtime_error when it cannot be taken; waiting for a collection is said.
    explicit BundlesInUse(const std::string& area);
    // For a collection. Nothing while a bundle is in use; throws as the constructor does.
    static std::unique_ptr<BundlesInUse> by_none(const std::string& area);

  private:
    BundlesInUse() = default;

    NamedLock lock_;
};

// While it lives no other process makes the bundle of this name. Waiting is said after a second,
// and an interrupt ends it. Throws std::runtime_error when the lock cannot be taken.
class BundleLock {
  public:
    BundleLock(const std::string& area, const std::string& name);

  private:
    NamedLock lock_;
};

// Whether `run` made this bundle and came to the end of it. Others are made anew: an unpack that
// was killed left them, or a version that took over everything the image asked for.
bool is_complete(const std::string& bundle);

// Says so of a bundle; false with errno set.
bool mark_complete(const std::string& bundle);

// Removes what of a bundle is there. False with errno set when something stays.
bool remove_bundle(const std::string& bundle);

} // namespace zncctl

#endif
