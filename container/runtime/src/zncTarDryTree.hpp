// zncTarDryTree.hpp - the tree that an extraction into an empty directory would make, as names in
// memory. Used by the dry runs of the extractor. Left out: permissions; whoever may do everything
// is asked.
#ifndef ZNCTARDRYTREE_HPP
#define ZNCTARDRYTREE_HPP

#include "zncOwned.hpp"
#include "zncontainer.h"

namespace znc {

class TarDryTree {
  public:
    enum class Kind : unsigned char { kDirectory, kFile, kLink };

    TarDryTree() = default;
    ~TarDryTree();
    TarDryTree(const TarDryTree&) = delete;
    TarDryTree& operator=(const TarDryTree&) = delete;

    // Names are single components in the directory that was entered last; "." is that itself. What
    // fails sets the task error number that the system call would.

    // Goes into a directory. False with ENOENT or ENOTDIR.
    [[nodiscard]] bool enter(const char* name) noexcept;
    // Back to the top.
    void leave() noexcept { here_ = nullptr; }
    // EEXIST, ENOMEM.
    [[nodiscard]] STATUS make(const char* name, Kind kind) noexcept;
    // A file takes the place of a file or a link. EISDIR, ENOMEM.
    [[nodiscard]] STATUS make_file(const char* name) noexcept;

  private:
    struct Node {
        const Node* parent; // null: the top
        Node* before;       // the one that was made before it
        Kind kind;
        MallocPtr<char> text;
        const char* name; // what the nodes are ordered by, with `parent`
    };
    static int compare(const void* a, const void* b) noexcept;
    Node* find(const char* name) const noexcept;

    void* root_ = nullptr; // of a balanced tree (tsearch)
    Node* newest_ = nullptr;
    const Node* here_ = nullptr;
};

} // namespace znc

#endif
