// image_files.hpp - access to the files of an image by path, either in a directory or in an
// uncompressed archive. Used by the sources.
#ifndef ZNC_IMPORT_SOURCE_IMAGE_FILES_HPP
#define ZNC_IMPORT_SOURCE_IMAGE_FILES_HPP

#include "archive.hpp"
#include "base/not_copied.hpp"
#include "format/digest.hpp"
#include "spool.hpp"

#include <map>
#include <optional>

namespace zncimport {

// A part of an open file. `owner` holds the descriptor if nothing else owns it.
struct FilePart {
    int fd = -1;
    Extent extent;
    std::string name;
    std::shared_ptr<const znc::UniqueFd> owner;

    [[nodiscard]] ReaderPtr read() const;
};

class ImageFiles : znc::NotCopied {
  public:
    virtual ~ImageFiles() = default;

    // Returns nothing if there is no such file. Throws Failure if it is not a regular file.
    [[nodiscard]] virtual std::optional<FilePart> find(const std::string& path) const = 0;
};
using ImageFilesPtr = std::unique_ptr<ImageFiles>;

// Opens files below the directory (not owned); symbolic links are not followed.
class DirectoryFiles : public ImageFiles {
  public:
    explicit DirectoryFiles(int directory) : directory_(directory) {}
    [[nodiscard]] std::optional<FilePart> find(const std::string& path) const override;

  private:
    int directory_;
};

// Reads members in place. Links between members are followed, because older archives store
// identical layers as links. If several members have the same name, the last one counts.
class ArchiveFiles : public ImageFiles {
  public:
    // Reads all headers. The descriptor in `whole` is not owned.
    ArchiveFiles(const FilePart& whole, const Limits& limits);

    [[nodiscard]] bool has(const std::string& path) const;
    // Throws Failure if a name is absolute or contains "..". Do not call this for a root
    // filesystem: the merge checks its names.
    void check_names() const;
    [[nodiscard]] std::optional<FilePart> find(const std::string& path) const override;

  private:
    struct Place {
        Kind kind = Kind::kOther;
        bool sparse = false;
        Extent extent;
        std::string target;
    };

    FilePart whole_;
    std::map<std::string, Place, std::less<>> places_;
    std::string bad_name_;
};

// "sha256:" or "sha512:" followed by the right number of hexadecimal digits.
using znc::is_digest;

// Reads complete documents and checks each against the limit, its size (-1: unknown) and its digest
// ("": unknown). Parsed JSON needs far more memory than its text, and many images may refer to the
// same document, so the total size is limited, too.
class Documents {
  public:
    explicit Documents(std::uint64_t limit) : limit_(limit) {}
    std::string read(const FilePart& file, const std::string& digest, std::int64_t size);
    // Checks and returns a document that is already in memory.
    std::string take(std::string text, const std::string& digest, std::int64_t size);

  private:
    void count(const std::string& text, const std::string& name);

    std::uint64_t limit_;
    std::uint64_t all_ = 0;
};

} // namespace zncimport

#endif
