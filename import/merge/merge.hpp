// merge.hpp - puts layer upon layer by the rules of the image format: whiteouts, replaced types,
// hard links. Used by import.cpp.
//
// A layer is read whole first: its whiteouts act on the layers below it, wherever in the archive
// they stand, and then its members are put in, in their order, the last of a name winning.
#ifndef ZNC_IMPORT_MERGE_MERGE_HPP
#define ZNC_IMPORT_MERGE_MERGE_HPP

#include "report.hpp"
#include "tree.hpp"

#include <unordered_map>

namespace zncimport {

// One member of a layer with its data in the spool.
struct Entry {
    Member member;
    Extent data;
};

class Merge {
  public:
    Merge(const Limits& limits, Report& report) : limits_(limits), report_(report), tree_(limits) {}

    // Reads an archive to its end: its members, and their data into the spool.
    static std::vector<Entry> read_layer(ArchiveReader& archive, Spool& spool);
    // Puts it on top of what is there.
    void add_layer(const std::vector<Entry>& entries);
    // After the last one. Links that still have no file are lost, and reported.
    Tree finish();

    // Whether a later layer took anything from this one, changed a directory of it or linked to a
    // file of it: then it cannot be kept as a layer of its own, nor can any above it.
    [[nodiscard]] bool touched(std::size_t layer) const;

  private:
    // A hard link whose file was not there yet. A node of kind kHardlink keeps its place, so that
    // what comes upon the name later acts as it would on the file.
    struct Pending {
        std::string path; // as reports name it
        std::string name;
        std::weak_ptr<Node> parent;
        std::weak_ptr<Node> place;
        std::vector<std::string> target;
        std::shared_ptr<Node> file;
        bool seen = false;
    };

    using Waiting = std::unordered_map<const Node*, std::size_t>; // places and their links

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
    std::map<std::string, std::shared_ptr<Node>> link_store_; // of the layer, see merge.cpp
};

} // namespace zncimport

#endif
