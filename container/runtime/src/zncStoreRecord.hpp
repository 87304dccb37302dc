// zncStoreRecord.hpp - the records of a storage base: the lists of texts that they consist of,
// their files, and those of flattened trees, which name the layers that a tree was made of. A
// record is a list of NUL-terminated strings, followed by one more NUL. Records are written to a
// temporary file, synced and then renamed or linked into place, so that a record is complete or
// does not exist. Used by the unpack, by the collection of unused directories, and when a container
// is created. The records of bundles are in zncBundleRecord, which needs digests: the daemon does
// not load those.
#ifndef ZNCSTORERECORD_HPP
#define ZNCSTORERECORD_HPP

#include "base/not_copied.hpp"
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

// The directory of the records in the storage base, and the suffix of the records of flattened
// trees. Names that begin with "." are files being written.
inline constexpr char kRecordsDir[] = "/records";
inline constexpr mode_t kRecordsMode = 0700;
inline constexpr std::string_view kTreeSuffix = ".tree";

// That directory, created if it is missing, and the path of a record in it. Null with errno set.
PathText make_records_dir(std::string_view base);
PathText record_path(const PathText& records, const char* name, std::string_view suffix);

// A list of texts in a file. The destructor removes the file unless keep() was called.
class RecordFile : znc::NotCopied {
  public:
    ~RecordFile() { drop(); }

    // Writes and syncs the file; replaces an existing file of that name.
    STATUS place(PathText path, const TextList& text);
    void keep() noexcept { path_.reset(); }
    void drop() noexcept;

  private:
    PathText path_;
};

// Records that the tree `chain` is made of `layers`. If a record exists already and lists the same
// layers, OK; if it lists others, EEXIST. `*isNew` is set to whether there was no record.
STATUS claim_tree(std::string_view base, const char* chain, const TextList& layers, bool* isNew);

// Reads the record of the layers that the tree `chain` is made of, lowest first.
[[nodiscard]] bool read_tree(std::string_view base, const char* chain, TextList* layers);

} // namespace znc

#endif
