#include "spool.hpp"

#include "front/files.hpp"

#include <cstdlib>
#include <fcntl.h>

namespace zncimport {
namespace {

std::string usual_directory()
{
    const char* set = std::getenv("TMPDIR");
    return set != nullptr && *set != '\0' ? set : "/var/tmp";
}

// Creates an unnamed file; not every file system supports O_TMPFILE.
znc::UniqueFd unnamed_file(const std::string& directory)
{
    znc::UniqueFd file(::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (file || (errno != EOPNOTSUPP && errno != EISDIR))
        return file;
    std::string name = directory + "/zncctl-import.XXXXXX";
    file.reset(::mkostemp(name.data(), O_CLOEXEC));
    if (file)
        ::unlink(name.c_str());
    return file;
}

} // namespace

Spool::Spool(const std::string& directory)
{
    const std::string& where = directory.empty() ? usual_directory() : directory;
    file_ = unnamed_file(where);
    if (!file_)
        throw Failure(where, "no temporary file: " + zncctl::error_text());
}

void Spool::append(std::span<const std::byte> bytes)
{
    while (!bytes.empty()) {
        const ssize_t put =
            ::pwrite(file_.get(), bytes.data(), bytes.size(), static_cast<off_t>(size_));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            throw Failure("", "the temporary file cannot be written: " + zncctl::error_text());
        size_ += static_cast<std::uint64_t>(put);
        bytes = bytes.subspan(static_cast<std::size_t>(put));
    }
}

ReaderPtr Spool::read(Extent extent) const
{
    return read_part(file_.get(), "temporary file", extent.offset, extent.size);
}

} // namespace zncimport
