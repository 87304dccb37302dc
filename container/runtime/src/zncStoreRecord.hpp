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
    [[nodiscard]] bool contains(const char* text) const;
    [[nodiscard]] bool operator==(const TextList& other) const;
    [[nodiscard]] bool empty() const { return len_ == 0; }
    // The first text, or null; the one that follows another, or null.
    [[nodiscard]] const char* first() const;
    [[nodiscard]] const char* next(const char* text) const;

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

// The record of a bundle: its path, its root, and the layers of the store that it needs, by name.
class BundleRecord {
  public:
    BundleRecord() = default;
    BundleRecord(const BundleRecord&) = delete;
    BundleRecord& operator=(const BundleRecord&) = delete;
    ~BundleRecord(); // one that was not kept is removed

    // Writes it. EEXIST: a bundle that still is there has the same root made of other layers.
    STATUS write(std::string_view base, const char* bundle, const char* root,
                 const TextList& layers);
    void keep() noexcept { path_.reset(); }

  private:
    PathText path_;
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

} // namespace znc

#endif
