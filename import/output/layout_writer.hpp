// layout_writer.hpp - puts an image into a layout so that whoever reads it at any time finds the
// old or the new one whole: blobs first, under names of their own until they are complete, the
// index last. Used by import.cpp.
#ifndef ZNC_IMPORT_OUTPUT_LAYOUT_WRITER_HPP
#define ZNC_IMPORT_OUTPUT_LAYOUT_WRITER_HPP

#include "front/json.hpp"
#include "import/source/failure.hpp"

#include "base/owned.hpp"

#include <cstdint>
#include <memory>

namespace zncimport {

// A file in the layout's blob directory that is gone unless it is kept: one without a name, or, on
// file systems that have none such, one with a name of its own.
class NewBlob {
  public:
    explicit NewBlob(znc::UniqueFd file) : file_(std::move(file)) {}
    NewBlob(znc::UniqueFd file, znc::UniqueFd dir, std::string name)
        : file_(std::move(file)), dir_(std::move(dir)), name_(std::move(name))
    {
    }
    NewBlob(NewBlob&& other) noexcept = default; // without its directory it removes nothing
    NewBlob& operator=(NewBlob&&) = delete;
    NewBlob(const NewBlob&) = delete;
    NewBlob& operator=(const NewBlob&) = delete;
    ~NewBlob()
    {
        if (dir_)
            ::unlinkat(dir_.get(), name_.c_str(), 0);
    }

    [[nodiscard]] int fd() const { return file_.get(); }
    [[nodiscard]] const std::string& name() const { return name_; } // "" for none

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

class LayoutWriter {
  public:
    // Makes the layout where there is none, and locks it against other imports for its life; waits
    // while another has it. An existing directory that is neither empty nor a layout is a Failure,
    // and so are links in place of its directories and documents.
    explicit LayoutWriter(const std::string& path);
    // Unless add_to_index() was done, takes away again what was made and kept.
    ~LayoutWriter();
    LayoutWriter(const LayoutWriter&) = delete;
    LayoutWriter& operator=(const LayoutWriter&) = delete;

    // Throws when an image of this name and platform is there and may not be replaced. One whose
    // platform cannot be told counts, and for "latest" one without a name, as unpacking takes it.
    void check_tag(const std::string& tag, const std::string& os, const std::string& arch,
                   bool replace) const;
    [[nodiscard]] NewBlob begin_blob() const;
    // Gives the blob its name; one of the same name and size that is there already is left as it
    // is.
    void keep(const NewBlob& blob, const std::string& digest) const;
    // A small blob as a whole; its digest.
    [[nodiscard]] std::string add_blob(std::string_view content) const;
    // Puts the entry in, in place of one of the same tag and platform; the other entries stay as
    // they are.
    void add_to_index(const IndexEntry& entry) const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace zncimport

#endif
