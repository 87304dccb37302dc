// image_files.hpp - the files that an image consists of, by their paths: below a directory, or in
// an archive that stands plain in a file. Used by the sources.
#ifndef ZNC_IMPORT_SOURCE_IMAGE_FILES_HPP
#define ZNC_IMPORT_SOURCE_IMAGE_FILES_HPP

#include "archive.hpp"
#include "format/digest.hpp"
#include "spool.hpp"

#include <map>
#include <optional>
#include <set>

namespace zncimport {

// A part of a file that is open; `owner` holds the descriptor where nobody else does.
struct FilePart {
    int fd = -1;
    Extent extent;
    std::string name;
    std::shared_ptr<const znc::UniqueFd> owner;

    [[nodiscard]] ReaderPtr read() const;
};

class ImageFiles {
  public:
    ImageFiles() = default;
    virtual ~ImageFiles() = default;
    ImageFiles(const ImageFiles&) = delete;
    ImageFiles& operator=(const ImageFiles&) = delete;

    // Nothing where there is none of this name; what is there and is no regular file is a Failure.
    [[nodiscard]] virtual std::optional<FilePart> find(const std::string& path) const = 0;
};
using ImageFilesPtr = std::unique_ptr<ImageFiles>;

// Everything is opened below the directory, which is borrowed; no link is followed.
class DirectoryFiles : public ImageFiles {
  public:
    explicit DirectoryFiles(int directory) : directory_(directory) {}
    [[nodiscard]] std::optional<FilePart> find(const std::string& path) const override;

  private:
    int directory_;
};

// Members are read where they stand. Links between members are followed, as older archives store
// equal layers so; of members of the same name the last one counts.
class ArchiveFiles : public ImageFiles {
  public:
    // Reads all headers; the descriptor in `whole` is borrowed.
    ArchiveFiles(const FilePart& whole, const Limits& limits);

    [[nodiscard]] bool has(const std::string& path) const;
    // A root filesystem's names are the merge's to judge, those of an image's own files must be
    // plain: throws Failure when one is absolute or leads upwards.
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

// "sha256:" or "sha512:" with as many hexadecimal digits as that takes.
using znc::is_digest;

// Reads documents as a whole, each held to its limit, its size (-1: not known) and digest ("": not
// known). A few bytes of text make many in memory, and any number of images may name the same
// document, so that all of them together have a limit too.
class Documents {
  public:
    explicit Documents(std::uint64_t limit) : limit_(limit) {}
    std::string read(const FilePart& file, const std::string& digest, std::int64_t size);
    // One that did not have to be read from a file.
    std::string take(std::string text, const std::string& digest, std::int64_t size);

  private:
    void count(const std::string& text, const std::string& name);

    std::uint64_t limit_;
    std::uint64_t all_ = 0;
};

} // namespace zncimport

#endif
