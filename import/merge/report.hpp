// report.hpp - records what an import changed or lost: a summary for standard error and a list for
// --report.
#ifndef ZNC_IMPORT_MERGE_REPORT_HPP
#define ZNC_IMPORT_MERGE_REPORT_HPP

#include "front/json.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace zncimport {

// What happened to a member. Losses are errors with --strict; notes never are.
enum class Change {
    // losses
    kDevice,          // dropped: the extractor creates no devices
    kFifo,            // dropped: the extractor creates no FIFOs
    kXattr,           // extended attributes, capabilities or ACLs that the format cannot carry
    kOwner,           // not root: unpacking does not restore owners
    kSetId,           // set-user-ID, set-group-ID or sticky bit, which unpacking does not set
    kLinkTarget,      // replaced by an equivalent target, because it was too long
    kDanglingLink,    // a hard link without a target, dropped
    kUnrepresentable, // name, size or number that the format cannot carry, dropped on request
    kTime,            // before 1970 or after 2242: replaced by the nearest valid time
    // an entry of "Volumes", which the runtime would turn into a bind mount of a host directory
    kVolume,
    kUser, // a user or group that the image does not define
    // notes
    kHardlinkCopied, // an additional name of a file became a copy
    kHardlinkLinked, // an additional name of a file became a symbolic link
    kSparse,
    kMetadataFile, // stargz.index.json, landmarks, .wh..wh. files: not part of the image
    kUserNumbers,  // a user name replaced by its numbers
};

class Report {
  public:
    struct Item {
        Change change;
        std::string path;   // in the image, without a leading "/"; "" for the image itself
        std::string detail; // the old and the new value; may be ""
        std::uint64_t bytes = 0;
    };

    void add(Change change, std::string path, std::string detail = "", std::uint64_t bytes = 0)
    {
        items_.push_back({change, std::move(path), std::move(detail), bytes});
    }
    [[nodiscard]] const std::vector<Item>& items() const { return items_; }
    static bool is_loss(Change change);
    // The name of the change in the document: "device", "hardlink-copied", ...
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
