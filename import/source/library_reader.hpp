// library_reader.hpp - a handle of libarchive that takes its bytes from a Reader. Used by archive
// and stream.
#ifndef ZNC_IMPORT_SOURCE_LIBRARY_READER_HPP
#define ZNC_IMPORT_SOURCE_LIBRARY_READER_HPP

#include "stream.hpp"

#include <exception>
#include <vector>

struct archive;

namespace zncimport {

class LibraryReader {
  public:
    // `source` is borrowed. Formats and filters are set by its user, before it is opened.
    explicit LibraryReader(Reader& source);
    ~LibraryReader();
    LibraryReader(const LibraryReader&) = delete;
    LibraryReader& operator=(const LibraryReader&) = delete;

    [[nodiscard]] archive* get() const { return archive_.get(); }
    void open(const std::string& name);
    // How many bytes of the source were handed over.
    [[nodiscard]] std::uint64_t given() const { return given_; }

    // What the library says, or what the source threw on the way: no exception passes through C.
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
