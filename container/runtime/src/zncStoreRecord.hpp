// zncStoreRecord.hpp - what a storage base remembers: of each bundle, what of the store it needs;
// of each flattened tree, which layers it was made of. A record is a list of texts, each ended by a
// NUL, and one NUL more. It appears complete, and is on disk, or not at all. Used by the
// unpack and by the collection of what is not used.
#ifndef ZNCSTORERECORD_HPP
#define ZNCSTORERECORD_HPP

#include "zncOwned.hpp"
#include "zncontainer.h"

#include <cstddef>
#include <string_view>

namespace znc {

using PathText = MallocPtr<char[]>;

// `base` followed by `name`; null with the task error number set when memory is short or it does
// not fit.
PathText path_in(std::string_view base, const char* name);
PathText path_in(std::string_view base, const char* directory, const char* name);

// What follows the last "/".
const char* last_component(const char* path);

// A list of texts.
class TextList {
  public:
    [[nodiscard]] bool add(const char* text);
    [[nodiscard]] bool add_all(const TextList& other);
    [[nodiscard]] bool contains(const char* text) const;
    [[nodiscard]] bool operator==(const TextList& other) const;
    [[nodiscard]] bool empty() const { return len_ == 0; }
    // The first text, or null; the one that follows another, or null.
    [[nodiscard]] const char* first() const;
    [[nodiscard]] const char* next(const char* text) const;
    // The last text, or null; the one before another, or null.
    [[nodiscard]] const char* last() const;
    [[nodiscard]] const char* before(const char* text) const;

    [[nodiscard]] bool read(const char* path);
    // Writes a temporary file beside `path`, on disk; its name is in `made`.
    [[nodiscard]] bool write_beside(const char* path, PathText* made) const;

  private:
    MallocPtr<char[]> text_;
    std::size_t len_ = 0;
    std::size_t room_ = 0;
};

// Where the records of a base are: "/records". Names in it: those of bundles and of trees end with
// these, what begins with "." is being written.
inline constexpr char kRecordsDir[] = "/records";
inline constexpr std::string_view kBundleSuffix = ".bundle";
inline constexpr std::string_view kTreeSuffix = ".tree";

// A list of texts in a file that goes again unless it is kept.
class RecordFile {
  public:
    RecordFile() = default;
    RecordFile(const RecordFile&) = delete;
    RecordFile& operator=(const RecordFile&) = delete;
    ~RecordFile() { drop(); }

    // Writes the file, on the medium; one of that name is replaced.
    STATUS place(PathText path, const TextList& text);
    void keep() noexcept { path_.reset(); }
    void drop() noexcept;

  private:
    PathText path_;
};

// What a bundle is made of. In the storage base: its path, its root, and the layers of the store
// that it needs, by name. In the bundle (zncBundleLayers): its root and the names of its layers.
class BundleRecord {
  public:
    // Writes both. EEXIST: a bundle that still is there has the same root made of other layers.
    // `layers`: those of the root, the bottom one first; `stored`: those that the store has to
    // keep.
    //
    // Of a bundle that has a configuration nothing is written: it was unpacked before and needs its
    // records, and this unpack will not get to the end.
    STATUS write(std::string_view base, const char* bundle, const char* root,
                 const TextList& layers, const TextList& stored);
    [[nodiscard]] bool bundle_was_there() const noexcept { return bundleWasThere_; }

    // What was written and not kept goes; at the end of the object's life in any case.
    void keep() noexcept;
    void drop() noexcept;

  private:
    RecordFile inStore_;
    RecordFile inBundle_;
    bool bundleWasThere_ = false;
};

// Whether the bundle that a record names is there. Whatever keeps that from being known counts as
// there.
bool bundle_lives(const char* bundlePath);

// Calls `func` with each bundle's record, the path of its file included. A record that cannot be
// read is an error: nobody then knows what is in use.
using BundleFunc = STATUS (*)(void* context, const char* file, const TextList& record);
STATUS each_bundle(std::string_view base, BundleFunc func, void* context);

// Says that the tree `chain` is made of `layers`, unless a record says so already. EEXIST: it says
// otherwise. `*isNew`: there was none.
STATUS claim_tree(std::string_view base, const char* chain, const TextList& layers, bool* isNew);

// The layers of which the tree `chain` is made, the bottom one first.
[[nodiscard]] bool read_tree(std::string_view base, const char* chain, TextList* layers);

} // namespace znc

#endif
