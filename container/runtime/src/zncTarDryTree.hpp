// zncTarDryTree.hpp - the directory tree that an extraction into an empty directory would create,
// kept in memory. Used by dry runs of the extractor. Permissions are not modelled: every operation
// behaves as it would for root.
#ifndef ZNCTARDRYTREE_HPP
#define ZNCTARDRYTREE_HPP

#include "base/not_copied.hpp"
#include "zncOwned.hpp"
#include "zncontainer.h"

namespace znc {

class TarDryTree : znc::NotCopied {
  public:
    enum class Kind : unsigned char { kDirectory, kFile, kLink };

    ~TarDryTree();

    // Names are single path components, relative to the directory entered last; "." is that
    // directory. Failures set errno as the corresponding system call would.

    // Enters a subdirectory. False with ENOENT or ENOTDIR.
    [[nodiscard]] bool enter(const char* name) noexcept;
    // Returns to the top directory.
    void leave() noexcept { here_ = nullptr; }
    // Creates a new entry. Fails with EEXIST or ENOMEM.
    [[nodiscard]] STATUS make(const char* name, Kind kind) noexcept;
    // Creates a file; replaces an existing file or link. Fails with EISDIR or ENOMEM.
    [[nodiscard]] STATUS make_file(const char* name) noexcept;

  private:
    struct Node {
        const Node* parent; // null: the top directory
        Node* before;       // the node created before this one, for the destructor
        Kind kind;
        MallocPtr<char> text;
        const char* name; // with `parent`, the key that nodes are ordered by
    };
    static int compare(const void* a, const void* b) noexcept;
    Node* find(const char* name) const noexcept;

    void* root_ = nullptr; // of a search tree made by tsearch()
    Node* newest_ = nullptr;
    const Node* here_ = nullptr;
};

} // namespace znc

#endif
