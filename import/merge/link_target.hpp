// link_target.hpp - replaces targets of symbolic links that are too long for the format by shorter
// equivalent targets, or by a chain of links. Used by prepare.
#ifndef ZNC_IMPORT_MERGE_LINK_TARGET_HPP
#define ZNC_IMPORT_MERGE_LINK_TARGET_HPP

#include "tree.hpp"

#include <map>
#include <span>

namespace zncimport {

// Returns the relative path from a directory to a path of the same tree, both given as components.
std::string relative_target(std::span<const std::string> directory,
                            std::span<const std::string> path);

// The normalized target of a link. ".." is resolved only after components that are real
// directories: after a symbolic link it would lead elsewhere.
class LinkTarget {
  public:
    // `directory` is the directory that contains the link.
    LinkTarget(const Node& root, std::vector<std::string> directory, std::string_view target);

    // The shorter one of the absolute and the relative target.
    [[nodiscard]] std::string shortest() const;
    // The components from the root; keeps a final "/" of the target.
    [[nodiscard]] const std::vector<std::string>& path() const { return path_; }

  private:
    std::vector<std::string> directory_;
    std::vector<std::string> path_;
    std::size_t real_ = 0; // number of leading components that are real directories
};

// Creates symbolic links that serve as intermediate steps to targets that are too long. They are in
// one directory in the root, which is created when the first link is needed.
class LinkHops {
  public:
    LinkHops(Node& root, bool allowed) : root_(root), allowed_(allowed) {}

    // Returns a target that leads there through intermediate links. `path` and `layer` are those of
    // the link. Throws Failure.
    std::string target_of(const LinkTarget& target, const std::string& path, std::size_t layer);
    // Call this once, after the last call of target_of().
    void add_to_tree();

  private:
    std::string hop_to(const std::string& target, std::size_t layer);

    Node& root_;
    bool allowed_;
    std::string directory_;                   // name of the directory
    std::map<std::string, std::string> hops_; // names of the intermediate links, by target
    std::shared_ptr<Node> nodes_;
};

} // namespace zncimport

#endif
