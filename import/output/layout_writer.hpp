// layout_writer.hpp - adds an image to a layout so that readers find either the old or the new
// image, complete, at any time: first the blobs, under temporary names until they are complete, and
// the index last. Used by import.cpp.
#ifndef ZNC_IMPORT_OUTPUT_LAYOUT_WRITER_HPP
#define ZNC_IMPORT_OUTPUT_LAYOUT_WRITER_HPP

#include "front/json.hpp"
#include "import/source/failure.hpp"

#include "base/not_copied.hpp"
#include "base/owned.hpp"

#include <cstdint>
#include <memory>

namespace zncimport {

// A new file in the blob directory, which is removed unless it is kept: an unnamed file, or, on
// file systems without O_TMPFILE, a file with a temporary name.
class NewBlob {
  public:
    explicit NewBlob(znc::UniqueFd file) : file_(std::move(file)) {}
    NewBlob(znc::UniqueFd file, znc::UniqueFd dir, std::string name)
        : file_(std::move(file)), dir_(std::move(dir)), name_(std::move(name))
    {
    }
    // a moved-from object has no directory and removes nothing
    NewBlob(NewBlob&& other) noexcept = default;
    NewBlob& operator=(NewBlob&&) = delete;
    ~NewBlob()
    {
        if (dir_)
            ::unlinkat(dir_.get(), name_.c_str(), 0);
    }

    [[nodiscard]] int fd() const { return file_.get(); }
    [[nodiscard]] const std::string& name() const { return name_; } // "" for an unnamed file

  private:
    znc::UniqueFd file_;
    znc::UniqueFd dir_;
    std::string name_;
};

struct IndexEntry {
    std::string manifest_digest;
    std::uint64_t manifest_size = 0;
    std::string tag;
    std::string os;
    std::string arch;
    std::string variant;
};

class LayoutWriter : znc::NotCopied {
  public:
    // Creates the layout if it does not exist, and locks it against other imports for the lifetime
    // of this object; waits while another import holds the lock. Throws Failure if an existing
    // directory is neither empty nor a layout, or if its directories or documents are symbolic
    // links.
    explicit LayoutWriter(const std::string& path);
    // Unless add_to_index() has succeeded, removes everything that was created.
    ~LayoutWriter();

    // Throws Failure if an image of this name and platform exists and may not be replaced. An image
    // of unknown platform counts as a match. For "latest" an unnamed image counts, too, because
    // unpacking would select it.
    void check_tag(const std::string& tag, const std::string& os, const std::string& arch,
                   bool replace) const;
    [[nodiscard]] NewBlob begin_blob() const;
    // Gives the blob its final name, replacing an existing blob of that name.
    void keep(const NewBlob& blob, const std::string& digest) const;
    // Writes a small blob and returns its digest.
    [[nodiscard]] std::string add_blob(std::string_view content) const;
    // Adds the entry, replacing entries of the same tag and platform. Other entries are not
    // changed.
    void add_to_index(const IndexEntry& entry) const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace zncimport

#endif
