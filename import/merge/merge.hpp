// merge.hpp - applies the layers of an image in order, by the rules of the OCI image format:
// whiteouts, replaced types, hard links. Used by import.cpp.
//
// A layer is first read completely. Its whiteouts are applied to the layers below it, wherever they
// are in the archive. Then its members are added in archive order, so that the last member with a
// name replaces earlier ones.
#ifndef ZNC_IMPORT_MERGE_MERGE_HPP
#define ZNC_IMPORT_MERGE_MERGE_HPP

#include "report.hpp"
#include "tree.hpp"

#include <unordered_map>

namespace zncimport {

// A member of a layer; its data are in the spool.
struct Entry {
    Member member;
    Extent data;
};

class Merge {
  public:
    Merge(const Limits& limits, Report& report) : limits_(limits), report_(report), tree_(limits) {}

    // Reads all members of an archive and writes their data to the spool.
    static std::vector<Entry> read_layer(ArchiveReader& archive, Spool& spool);
    // Applies the layer on top of the layers added before.
    void add_layer(const std::vector<Entry>& entries);
    // Call this after the last layer. Hard links without a target are dropped and reported.
    Tree finish();

    // Returns whether a later layer removed anything from this one, changed one of its directories
    // or linked to one of its files. If so, neither this layer nor any above it can be kept as a
    // layer of its own.
    [[nodiscard]] bool touched(std::size_t layer) const;

  private:
    // A hard link whose target does not exist yet. A node of kind kHardlink stands in its place in
    // the tree, so that later members with this name replace it like a file.
    struct Pending {
        std::string path; // as shown in reports
        std::string name;
        std::weak_ptr<Node> parent;
        std::weak_ptr<Node> place;
        std::vector<std::string> target;
        std::shared_ptr<Node> file;
        bool seen = false;
    };

    // placeholder nodes and the indexes of their links
    using Waiting = std::unordered_map<const Node*, std::size_t>;

    void apply_whiteouts(const std::vector<Entry>& entries);
    void add_member(const Entry& entry);
    void put_root(const Member& member);
    void put(const Entry& entry, const std::vector<std::string>& path);
    void put_link(const Member& member, const std::vector<std::string>& path);
    Node& parent_of(const std::vector<std::string>& path, const Member& member);
    void replace(Node& parent, const std::string& name, std::shared_ptr<Node> node);
    std::shared_ptr<Node> file_at(const std::vector<std::string>& target);
    void settle_links(std::size_t first);
    void settle_links_once(std::size_t first);
    void drop_gone_links(std::size_t first);
    void find_file(std::size_t at, const Waiting& waiting);
    void put_file(const Pending& link);
    void touch(std::size_t layer);
    void touch_all(const Node& node);

    const Limits& limits_;
    Report& report_;
    Tree tree_;
    std::size_t layer_ = 0;
    std::vector<bool> touched_;
    std::vector<Pending> pending_;
    std::map<std::string, std::shared_ptr<Node>> link_store_; // see kLinkStoreName in merge.cpp
};

} // namespace zncimport

#endif
