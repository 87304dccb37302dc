// zncStoreRecord.hpp - the records of a storage base: for each bundle, what it needs from the
// store; for each flattened tree, the layers that it was made of. A record is a list of
// NUL-terminated strings, followed by one more NUL. Records are written to a temporary file, synced
// and then renamed or linked into place, so that a record is complete or does not exist. Used by
// the unpack and by the collection of unused directories.
#ifndef ZNCSTORERECORD_HPP
#define ZNCSTORERECORD_HPP

#include "zncOwned.hpp"
#include "zncontainer.h"

#include <cstddef>
#include <string_view>

#include <sys/types.h>

namespace znc {

using PathText = MallocPtr<char[]>;

// Concatenates its arguments. Null with errno set if there is no memory or the result does not fit
// into kPathMax.
PathText path_in(std::string_view base, const char* name);
PathText path_in(std::string_view base, const char* directory, const char* name);

// The part after the last "/", or the whole path if it has none.
const char* last_component(const char* path);

// A list of strings, stored one after the other.
class TextList {
  public:
    [[nodiscard]] bool add(const char* text);
    [[nodiscard]] bool add_all(const TextList& other);
    [[nodiscard]] bool contains(const char* text) const;
    [[nodiscard]] bool operator==(const TextList& other) const;
    [[nodiscard]] bool empty() const { return len_ == 0; }
    // Iteration: the first string, and the one after `text`, which must point into the list; null
    // at the end.
    [[nodiscard]] const char* first() const;
    [[nodiscard]] const char* next(const char* text) const;
    // Iteration from the end: the last string, and the one before `text`; null at the start.
    [[nodiscard]] const char* last() const;
    [[nodiscard]] const char* before(const char* text) const;

    [[nodiscard]] bool read(const char* path);
    // Writes the list to a temporary file in the directory of `path` and syncs it; the name of that
    // file goes to `temporary`.
    [[nodiscard]] bool write_beside(const char* path, PathText* temporary) const;

  private:
    MallocPtr<char[]> text_;
    std::size_t len_ = 0;
    std::size_t capacity_ = 0;
};

// The directory of the records in the storage base, and the suffixes of the records of bundles and
// of flattened trees. Names that begin with "." are files being written.
inline constexpr char kRecordsDir[] = "/records";
inline constexpr mode_t kRecordsMode = 0700;
inline constexpr std::string_view kBundleSuffix = ".bundle";
inline constexpr std::string_view kTreeSuffix = ".tree";

// A list of texts in a file. The destructor removes the file unless keep() was called.
class RecordFile {
  public:
    RecordFile() = default;
    RecordFile(const RecordFile&) = delete;
    RecordFile& operator=(const RecordFile&) = delete;
    ~RecordFile() { drop(); }

    // Writes and syncs the file; replaces an existing file of that name.
    STATUS place(PathText path, const TextList& text);
    void keep() noexcept { path_.reset(); }
    void drop() noexcept;

  private:
    PathText path_;
};

// The two records of a bundle. The one in the storage base holds the path of the bundle, the path
// of its root, and the names of the layers in the store that it needs. The one in the bundle
// (zncBundleLayers) holds the path of the root and the names of the layers it is made of.
class BundleRecord {
  public:
    // Writes both records. EEXIST: another bundle that still exists has the same root, made of
    // other layers. `layers`: the layers of the root, lowest first; if empty, no record is written
    // into the bundle. `stored`: the layers that the store must keep.
    //
    // If the bundle already has a "config.json", nothing is written: the bundle was unpacked before
    // and needs its records, and this unpack will fail.
    STATUS write(std::string_view base, const char* bundle, const char* root,
                 const TextList& layers, const TextList& stored);
    // Whether write() found a "config.json".
    [[nodiscard]] bool bundle_was_there() const noexcept { return bundleWasThere_; }

    // drop() removes what was written, unless keep() was called before. The destructor does the
    // same.
    void keep() noexcept;
    void drop() noexcept;

  private:
    RecordFile inStore_;
    RecordFile inBundle_;
    bool bundleWasThere_ = false;
};

// Whether the bundle of a record still has its "config.json". If that cannot be determined: true.
bool bundle_exists(const char* bundlePath);

// Calls `func` with the path and contents of each bundle's record. An unreadable record is an
// error, because it is then unknown what is in use.
using BundleFunc = STATUS (*)(void* context, const char* file, const TextList& record);
STATUS each_bundle(std::string_view base, BundleFunc func, void* context);

// Records that the tree `chain` is made of `layers`. If a record exists already and lists the same
// layers, OK; if it lists others, EEXIST. `*isNew` is set to whether there was no record.
STATUS claim_tree(std::string_view base, const char* chain, const TextList& layers, bool* isNew);

// Reads the record of the layers that the tree `chain` is made of, lowest first.
[[nodiscard]] bool read_tree(std::string_view base, const char* chain, TextList* layers);

} // namespace znc

#endif
