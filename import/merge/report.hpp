// report.hpp - what an import changed or lost, counted for standard error and listed for --report.
#ifndef ZNC_IMPORT_MERGE_REPORT_HPP
#define ZNC_IMPORT_MERGE_REPORT_HPP

#include "front/json.hpp"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zncimport {

// What happened to a member. Losses are errors with --strict; notes never are.
enum class Change {
    // losses
    kDevice,          // dropped: the extractor makes none
    kFifo,            // dropped likewise
    kXattr,           // extended attributes, capabilities or ACLs that the format cannot carry
    kOwner,           // is not root's, and unpacking does not give files away
    kSetId,           // set-user-id, set-group-id or sticky bit, which unpacking does not set
    kLinkTarget,      // reads otherwise than before: too long as it was
    kDanglingLink,    // a hard link to nothing, dropped
    kUnrepresentable, // name, size or number that the format cannot carry, dropped on request
    kTime,            // before 1970 or after 2242: now the nearest that fits
    kVolume,          // an entry of "Volumes", which would become a mount of a host's directory
    kUser,            // a user or group that the image does not know
    // notes
    kHardlinkCopied, // a further name got a copy of the data
    kHardlinkLinked, // a further name became a symbolic link
    kSparse,
    kMetadataFile, // stargz.index.json, landmarks, .wh..wh. files: no content
    kUserNumbers,  // a user name replaced by its numbers
};

class Report {
  public:
    struct Item {
        Change change;
        std::string path;   // in the image, without a leading "/"; "" for the image itself
        std::string detail; // what it was and what it is now; may be ""
        std::uint64_t bytes = 0;
    };

    void add(Change change, std::string path, std::string detail = "", std::uint64_t bytes = 0)
    {
        items_.push_back({change, std::move(path), std::move(detail), bytes});
    }
    [[nodiscard]] const std::vector<Item>& items() const { return items_; }
    static bool is_loss(Change change);
    // The word for it in the document: "device", "hardlink-copied", ...
    static const char* word(Change change);

    [[nodiscard]] std::uint64_t losses() const;
    // "lost: 3 devices (first: dev/null), 1 owner (first: home/app); changed: ..." or "".
    [[nodiscard]] std::string summary() const;
    // The document of --report: {"losses": N, "counts": {WORD: N}, "items": [{...}]}.
    [[nodiscard]] zncctl::Json document() const;

  private:
    std::vector<Item> items_;
};

} // namespace zncimport

#endif
