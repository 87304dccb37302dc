// library_reader.hpp - a libarchive handle that reads from a Reader. Used by archive and stream.
#ifndef ZNC_IMPORT_SOURCE_LIBRARY_READER_HPP
#define ZNC_IMPORT_SOURCE_LIBRARY_READER_HPP

#include "base/not_copied.hpp"
#include "stream.hpp"

#include <exception>
#include <vector>

struct archive;

namespace zncimport {

class LibraryReader : znc::NotCopied {
  public:
    // `source` is not owned. The caller sets formats and filters before it opens the archive.
    explicit LibraryReader(Reader& source);
    ~LibraryReader();

    [[nodiscard]] archive* get() const { return archive_.get(); }
    void open(const std::string& name);
    // Number of bytes read from the source so far.
    [[nodiscard]] std::uint64_t given() const { return given_; }

    // Throws the exception that the source threw, or a Failure with libarchive's message.
    // Exceptions are stored, since they must not pass through C code.
    [[noreturn]] void fail(const std::string& name) const;

  private:
    struct Closer {
        void operator()(archive* handle) const;
    };
    static ssize_t read_source(archive* handle, void* self, const void** bytes);
    static std::int64_t skip_source(archive* handle, void* self, std::int64_t count);

    Reader& source_;
    std::vector<std::byte> buffer_;
    std::uint64_t given_ = 0;
    std::exception_ptr thrown_;
    std::unique_ptr<archive, Closer> archive_;
};

} // namespace zncimport

#endif
