// archive.hpp - reads the members of a tar archive (ustar, pax, GNU or V7) with libarchive. Used by
// the sources that are archives and for the layers.
//
// This class writes nothing to disk and does not judge the members.
#ifndef ZNC_IMPORT_SOURCE_ARCHIVE_HPP
#define ZNC_IMPORT_SOURCE_ARCHIVE_HPP

#include "base/not_copied.hpp"
#include "library_reader.hpp"

#include <functional>
#include <vector>

namespace zncimport {

enum class Kind {
    kFile,
    kDirectory,
    kSymlink,
    kHardlink,
    kCharDevice,
    kBlockDevice,
    kFifo,
    kOther
};

// A member as recorded in the archive.
struct Member {
    std::string path; // unchanged: may be absolute, begin with "./", contain "..", end with "/"
    Kind kind = Kind::kOther;
    std::uint32_t mode = 0; // permission bits with set-ID and sticky bits, 07777
    std::int64_t uid = 0;
    std::int64_t gid = 0;
    std::int64_t mtime = 0;  // whole seconds, may be negative
    std::uint64_t size = 0;  // of a file's data, holes included
    bool sparse = false;     // the data are stored without the holes
    std::string target;      // of a symbolic link: unchanged; of a hard link: the path of a member
    std::uint32_t major = 0; // of a device
    std::uint32_t minor = 0;
    std::vector<std::string>
        xattrs; // names of extended attributes; ACLs appear as "system.posix_acl_access"
};

class ArchiveReader : znc::NotCopied {
  public:
    // `plain` is the uncompressed archive (not owned). `name` is used in messages.
    ArchiveReader(Reader& plain, std::string name, Budget& budget);
    ~ArchiveReader();

    // Reads the next header; returns false at the end. Throws Failure for a truncated archive or a
    // member that libarchive cannot represent completely.
    bool next(Member& member);
    // Passes the data of the current member to `sink`: all of its `size` bytes, with zeros for
    // holes.
    void data(const std::function<void(std::span<const std::byte>)>& sink);
    // The offset of these data in the archive; not valid for sparse files.
    [[nodiscard]] std::uint64_t data_offset() const;

  private:
    std::string name_;
    Budget& budget_;
    LibraryReader library_;
    std::uint64_t size_ = 0;
};

} // namespace zncimport

#endif
