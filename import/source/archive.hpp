// archive.hpp - the members of a tar archive, whoever wrote it (ustar, pax, GNU, V7), by
// libarchive. Used by the sources that are archives and for the layers.
//
// Nothing is written to disk here, and nothing is decided about a member.
#ifndef ZNC_IMPORT_SOURCE_ARCHIVE_HPP
#define ZNC_IMPORT_SOURCE_ARCHIVE_HPP

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

// A member as it is written in the archive.
struct Member {
    std::string path; // as it stands: may be absolute, begin with "./", hold "..", end with "/"
    Kind kind = Kind::kOther;
    std::uint32_t mode = 0; // permission bits with set-id and sticky, 07777
    std::int64_t uid = 0;
    std::int64_t gid = 0;
    std::int64_t mtime = 0;  // whole seconds, may be negative
    std::uint64_t size = 0;  // of a file's data, holes included
    bool sparse = false;     // its data is stored without its holes
    std::string target;      // of a symbolic link, as it stands; of a hard link, a member's path
    std::uint32_t major = 0; // of a device
    std::uint32_t minor = 0;
    std::vector<std::string>
        xattrs; // names of extended attributes, ACLs as "system.posix_acl_access"
};

class ArchiveReader {
  public:
    // `plain`: the archive's bytes without compression, borrowed. `name` is for messages.
    ArchiveReader(Reader& plain, std::string name, Budget& budget);
    ~ArchiveReader();
    ArchiveReader(const ArchiveReader&) = delete;
    ArchiveReader& operator=(const ArchiveReader&) = delete;

    // False behind the last one. An archive that is torn, or a member that libarchive cannot take
    // over whole, is a Failure.
    bool next(Member& member);
    // The data of the member that next() gave: all its `size` bytes, zeros for holes.
    void data(const std::function<void(std::span<const std::byte>)>& sink);
    // Where in the archive that data begins; not for sparse files.
    [[nodiscard]] std::uint64_t data_offset() const;

  private:
    std::string name_;
    Budget& budget_;
    LibraryReader library_;
    std::uint64_t size_ = 0;
};

} // namespace zncimport

#endif
