// image_store.hpp - the images that have names: one OCI layout in the storage base. Its index names
// each image by the annotation org.opencontainers.image.ref.name, which holds a full name; an image
// without this annotation has no name. Names and digests from documents are never used as paths.
//
// The index changes under a lock, by rename, and only after the blobs that it needs are on disk, so
// that a process that is killed leaves at most blobs that no image needs and a stage. Both are
// removed later. Readers do not take that lock. They hold a BundlesInUse lock (see bundle_area.hpp)
// on the directory of the store, taken before the index is read, so that no blob is removed.
#ifndef ZNC_CLI_IMAGES_IMAGE_STORE_HPP
#define ZNC_CLI_IMAGES_IMAGE_STORE_HPP

#include "front/layout.hpp"
#include "front/named_lock.hpp"

#include "base/not_copied.hpp"
#include "base/owned.hpp"

#include <string>
#include <vector>

namespace zncctl {

// An entry of the index.
struct StoredImage {
    std::string name; // "" for an image without a name
    Descriptor manifest;
    std::string os;
    std::string arch;
    // What it was made from: the digest of a manifest, of an archive, or "".
    std::string source;
};

// The directory of the store, which is a layout as soon as it has an image. Throws
// std::runtime_error as private_area() does.
std::string image_area();

// All entries of the index, none if the store is empty. Throws std::runtime_error if the index is
// damaged.
std::vector<StoredImage> stored_images();

// The documents of an image of the store.
inline Image read_stored(const std::string& area, const StoredImage& image)
{
    return read_image(area, image.manifest);
}

// A temporary directory in the store for an image that is being added. The destructor removes it
// with its contents. Throws std::runtime_error.
class ImageStage : znc::NotCopied {
  public:
    ImageStage();
    ~ImageStage();

    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    std::string path_;
    znc::UniqueFd dir_; // locked; an unlocked stage was left by a process that was killed
};

// Makes the directory a layout of one image of the store, whose blobs are those of the store.
// Throws std::runtime_error.
void make_layout_of(const StoredImage& image, const std::string& directory);

// A change of the store. No other process changes it while an object exists. All functions throw
// std::runtime_error.
class StoreChange {
  public:
    // Waits for other changes, printing a hint after a second.
    StoreChange();

    [[nodiscard]] const std::vector<StoredImage>& images() const { return images_; }

    // Moves the blobs of an image from a layout on the same file system into the store and syncs
    // them. The caller has verified them.
    void adopt(const std::string& layout, const Image& image);

    // Gives an image these names beside those that it has, or adds it without a name. Another image
    // that has one of them loses it, and stays without a name unless it has others. An image that
    // was added with names only learns its source from an addition without one. Changes
    // nothing if the store would hold too many entries.
    void put(const StoredImage& image, const std::vector<std::string>& names);
    // The same with the name in `image`.
    void put(const StoredImage& image)
    {
        put(image, image.name.empty() ? std::vector<std::string>() : std::vector{image.name});
    }

    // Removes the entries at these places in images().
    void remove(const std::vector<std::size_t>& places);

    // Writes the index. On a full disk this succeeds if entries were removed.
    void save();

    // Removes the blobs that no entry needs, and returns their size. Removes none while images are
    // in use, or if the manifest of an entry cannot be read: then it is not known what is needed.
    // Prints a warning for each damaged image.
    std::uint64_t remove_unneeded_blobs() const;

  private:
    std::string area_;
    NamedLock lock_;
    znc::UniqueFd dir_;
    std::vector<StoredImage> images_;
    std::size_t count_ = 0; // entries of the index on disk
};

} // namespace zncctl

#endif
