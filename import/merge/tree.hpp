// tree.hpp - the merged file system of an image in memory: names and metadata. File data are in the
// spool. Built by the merge and read by the writer of the new layer.
//
// Paths never leave the tree: "..", absolute targets and symbolic links are resolved relative to
// its root.
#ifndef ZNC_IMPORT_MERGE_TREE_HPP
#define ZNC_IMPORT_MERGE_TREE_HPP

#include "import/source/archive.hpp"
#include "import/source/spool.hpp"

#include <map>

namespace zncimport {

struct Node;

// A name in a directory; several may share one node (hard links).
using Children = std::map<std::string, std::shared_ptr<Node>, std::less<>>;

struct Node : std::enable_shared_from_this<Node> {
    Kind kind = Kind::kDirectory; // kHardlink: placeholder until the link is resolved
    std::uint32_t mode = 0755;
    std::int64_t uid = 0;
    std::int64_t gid = 0;
    std::int64_t mtime = 0;
    Extent data;        // of a file
    std::string target; // of a symbolic link
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::vector<std::string> xattrs;
    Children children; // of a directory
    // index of the layer it came from; for a directory, of the lowest layer that contains it
    std::size_t layer = 0;
    bool implied = false; // a directory created only because a member is below it
};

// The attributes of directories that have no member of their own and are created for a member below
// them.
struct Implied {
    std::int64_t mtime = 0;
    std::size_t layer = 0;
    std::vector<std::size_t>* replaced = nullptr; // receives the layers of nodes that were replaced
};

class Tree {
  public:
    explicit Tree(const Limits& limits = {});

    [[nodiscard]] Node& root() { return *root_; }
    [[nodiscard]] const Node& root() const { return *root_; }

    // Splits a path into its components, without empty ones and ".". An inner ".." cancels the
    // component before it. Throws Failure if ".." would leave the root or there are more components
    // than `depth`.
    static std::vector<std::string> split(const std::string& path, std::uint64_t depth);
    static std::string join(std::span<const std::string> path);

    // Returns the node at a path, or null. Links are followed in all components but the last.
    [[nodiscard]] Node* find(const std::string& path, std::uint64_t depth);
    [[nodiscard]] Node* find(const std::vector<std::string>& path);

    // Returns the directory that contains the last component, following links. Missing directories
    // are created, and anything that is not a directory is replaced by one. Throws Failure if there
    // are too many links, or if the limits for depth or for created directories are exceeded.
    Node& parent_of(const std::vector<std::string>& path, const Implied& implied);
    Node& parent_of(const std::vector<std::string>& path, std::int64_t mtime, std::size_t layer)
    {
        return parent_of(path, Implied{mtime, layer});
    }

    // Like parent_of, but creates nothing; returns null if the directory does not exist.
    [[nodiscard]] Node* existing_parent_of(const std::vector<std::string>& path);

  private:
    Node* descend(std::span<const std::string> way, const Implied* implied);
    Node& make_directory(Node& parent, const std::string& name, const Implied& implied);

    std::shared_ptr<Node> root_;
    std::uint64_t depth_;
    std::uint64_t implied_left_; // number of directories that may still be created
};

} // namespace zncimport

#endif
