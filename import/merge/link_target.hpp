// link_target.hpp - targets of symbolic links that are too long for the format, said in other words
// that lead to the same place, or in several steps. Used by prepare.
#ifndef ZNC_IMPORT_MERGE_LINK_TARGET_HPP
#define ZNC_IMPORT_MERGE_LINK_TARGET_HPP

#include "tree.hpp"

#include <map>
#include <span>

namespace zncimport {

// The way from a directory to a path of the same tree, both by their components.
std::string relative_target(std::span<const std::string> directory,
                            std::span<const std::string> path);

// Where a link leads: through real directories of the tree as far as there are any, and what
// remains of its text. Only over real directories may ".." be taken away: behind a link the same
// dots lead elsewhere.
class LinkTarget {
  public:
    // `directory`: where the link stands.
    LinkTarget(const Node& root, std::vector<std::string> directory, std::string_view target);

    // The shortest text, of those that begin at the root and at the link.
    [[nodiscard]] std::string shortest() const;
    // From the root on, with the final "/" if it had one.
    [[nodiscard]] const std::vector<std::string>& path() const { return path_; }

  private:
    std::vector<std::string> directory_;
    std::vector<std::string> path_;
    std::size_t real_ = 0; // components at its front that are real directories
};

// Symbolic links to directories in a directory of their own in the root, which is made when the
// first is needed: steps on the way to targets that are too long.
class LinkHops {
  public:
    LinkHops(Node& root, bool allowed) : root_(root), allowed_(allowed) {}

    // A target that goes there by steps; `path` and `layer` are the link's. Throws Failure.
    std::string target_of(const LinkTarget& target, const std::string& path, std::size_t layer);
    // After the last one.
    void add_to_tree();

  private:
    std::string hop_to(const std::string& target, std::size_t layer);

    Node& root_;
    bool allowed_;
    std::string directory_;                   // its name
    std::map<std::string, std::string> hops_; // their names by what they lead to
    std::shared_ptr<Node> nodes_;
};

} // namespace zncimport

#endif
