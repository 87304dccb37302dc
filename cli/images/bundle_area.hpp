// bundle_area.hpp - the directory, in the storage base, of the bundles that `run` creates from
// images: locks against concurrent use, and which bundles are complete. Used by image_bundle and
// storage.
#ifndef ZNC_CLI_IMAGES_BUNDLE_AREA_HPP
#define ZNC_CLI_IMAGES_BUNDLE_AREA_HPP

#include <memory>
#include <string>
#include <string_view>

#include "front/named_lock.hpp"

namespace zncctl {

// The path of the storage base, without a final "/". Throws std::runtime_error if it cannot be
// created.
std::string storage_base();

// The path of the directory `name` in the storage base, which is created if it does not exist.
// Throws std::runtime_error if it cannot be used or belongs to another user. Removes access rights
// of other users.
std::string private_area(const char* name);

// Removes directories of an area whose names begin with `prefix` and which no process has locked:
// those left by processes that were killed.
void sweep_abandoned(const std::string& area, std::string_view prefix);

// Creates and locks such a directory, and stores its path. Throws std::runtime_error.
znc::UniqueFd make_locked_directory(const std::string& area, std::string_view prefix,
                                    std::string& path);

// The directory of the bundles.
std::string bundle_area();

// A shared lock against garbage collection: held from the lookup of a bundle until its container
// exists; in the image store, until the blobs of an image are open. Commands that use them share
// the lock; a collection takes it exclusively and does not wait for it.
class BundlesInUse {
  public:
    // Waits for a running collection, printing a hint after a second. Throws std::runtime_error if
    // the lock cannot be taken.
    explicit BundlesInUse(const std::string& area);
    // For a collection. Null while a bundle is in use; throws as the constructor does.
    static std::unique_ptr<BundlesInUse> try_exclusive(const std::string& area);

  private:
    BundlesInUse() = default;

    NamedLock lock_;
};

// While an object exists, no other process creates the bundle of this name. The constructor waits
// for the lock, printing a hint after a second; a signal ends the wait. Throws std::runtime_error
// if the lock cannot be taken.
class BundleLock {
  public:
    BundleLock(const std::string& area, const std::string& name);

  private:
    NamedLock lock_;
};

// Whether `run` created this bundle completely. Other bundles are created again: they were left by
// an unpack that was killed, or by an older version that did not filter the image's settings or
// look up its user.
bool is_complete(const std::string& bundle);

// Marks a bundle as complete; false with errno set. `lasting`: after a crash of the machine, the
// marked bundle has its configuration.
bool mark_complete(const std::string& bundle, bool lasting);

// Removes a bundle, also an incomplete one. False with errno set if part of it could not be
// removed.
bool remove_bundle(const std::string& bundle);

} // namespace zncctl

#endif
