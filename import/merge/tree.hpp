// tree.hpp - the merged file system of an image, in memory: names and what is known of files, whose
// data is in the spool. Used by the merge, which builds it, and by the writer of the new layer.
//
// A path never leaves the tree: "..", absolute targets and links are followed inside of it.
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
    Kind kind = Kind::kDirectory; // kHardlink only while the merge waits for the file
    std::uint32_t mode = 0755;
    std::int64_t uid = 0;
    std::int64_t gid = 0;
    std::int64_t mtime = 0;
    Extent data;        // of a file
    std::string target; // of a symbolic link
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::vector<std::string> xattrs;
    Children children;     // of a directory
    std::size_t layer = 0; // that it came from, from 0; for directories the lowest that has it
    bool implied = false;  // a directory that no layer has a member for
};

// What directories on the way to a member get that no member made.
struct Implied {
    std::int64_t mtime = 0;
    std::size_t layer = 0;
    std::vector<std::size_t>* replaced = nullptr; // gets the layers of nodes that had to give way
};

class Tree {
  public:
    explicit Tree(const Limits& limits = {});

    [[nodiscard]] Node& root() { return *root_; }
    [[nodiscard]] const Node& root() const { return *root_; }

    // A path's components without empty ones and "."; throws Failure for ".." that leaves the root
    // and for more components than the limit. Inner ".." is taken away with the name before it.
    static std::vector<std::string> split(const std::string& path, std::uint64_t depth);
    static std::string join(std::span<const std::string> path);

    // The node at a path (no link followed at its end, links followed on the way), or null.
    [[nodiscard]] Node* find(const std::string& path, std::uint64_t depth);
    [[nodiscard]] Node* find(const std::vector<std::string>& path);

    // The directory in which the last component stands, made where it is missing, through linked
    // directories; what is no directory on the way is replaced by one. Throws Failure when that
    // takes too many links, or ends deeper in the tree or with more directories made than the
    // limits allow.
    Node& parent_of(const std::vector<std::string>& path, const Implied& implied);
    Node& parent_of(const std::vector<std::string>& path, std::int64_t mtime, std::size_t layer)
    {
        return parent_of(path, Implied{mtime, layer});
    }

    // As parent_of, but makes nothing; null when it is not there.
    [[nodiscard]] Node* existing_parent_of(const std::vector<std::string>& path);

  private:
    Node* descend(std::span<const std::string> way, const Implied* implied);
    Node& make_directory(Node& parent, const std::string& name, const Implied& implied);

    std::shared_ptr<Node> root_;
    std::uint64_t depth_;
    std::uint64_t may_imply_; // directories
};

} // namespace zncimport

#endif
