#include "library_reader.hpp"

#include <archive.h>

namespace zncimport {
namespace {

constexpr std::size_t kPart = std::size_t{64} << 10U;

} // namespace

void LibraryReader::Closer::operator()(archive* handle) const
{
    archive_read_free(handle);
}

LibraryReader::LibraryReader(Reader& source)
    : source_(source), buffer_(kPart), archive_(archive_read_new())
{
    if (archive_ == nullptr)
        throw std::bad_alloc();
}

LibraryReader::~LibraryReader() = default;

void LibraryReader::open(const std::string& name)
{
    archive_read_set_callback_data(get(), this);
    archive_read_set_read_callback(get(), read_source);
    archive_read_set_skip_callback(get(), skip_source);
    // When detecting the format, libarchive treats a read error at the start as an empty stream:
    // check for an exception, too.
    if (archive_read_open1(get()) != ARCHIVE_OK || thrown_ ||
        archive_error_string(get()) != nullptr)
        fail(name);
}

ssize_t LibraryReader::read_source(archive* handle, void* self, const void** bytes)
{
    auto& reader = *static_cast<LibraryReader*>(self);
    try {
        const std::size_t got = reader.source_.read(reader.buffer_);
        reader.given_ += got;
        *bytes = reader.buffer_.data();
        return static_cast<ssize_t>(got);
    } catch (...) {
        reader.thrown_ = std::current_exception();
        archive_set_error(handle, EIO, "the source failed");
        return -1;
    }
}

std::int64_t LibraryReader::skip_source(archive* handle, void* self, std::int64_t count)
{
    auto& reader = *static_cast<LibraryReader*>(self);
    try {
        const std::uint64_t skipped = reader.source_.skip(static_cast<std::uint64_t>(count));
        reader.given_ += skipped;
        return static_cast<std::int64_t>(skipped);
    } catch (...) {
        reader.thrown_ = std::current_exception();
        archive_set_error(handle, EIO, "the source failed");
        return -1;
    }
}

void LibraryReader::fail(const std::string& name) const
{
    if (thrown_)
        std::rethrow_exception(thrown_);
    const char* text = archive_error_string(get());
    throw Failure(name, text != nullptr ? text : "the archive cannot be read");
}

} // namespace zncimport
