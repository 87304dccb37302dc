// file.hpp - regular files read safely: opened without waiting, read whole. Used for everything
// of an image layout, for JSON documents and for the store's records. Left out: checking what was
// read (zncDigest, zncBlob).
#ifndef ZNC_BASE_FILE_HPP
#define ZNC_BASE_FILE_HPP

#include "owned.hpp"

#include <cstddef>
#include <string_view>

#include <sys/stat.h>
#include <sys/types.h>

namespace znc {

// Opens the regular file `path` for reading and gives its status. Anything else is not opened: the
// path may lead to a device, and some devices act on being opened. None with EINVAL for what is no
// regular file, else with the number of the failing call.
[[nodiscard]] UniqueFd open_regular(const char* path, struct stat* st);

// A file in memory.
struct FileText {
    MallocPtr<char[]> bytes; // NUL-terminated; null: not read, the task error number says why
    std::size_t len = 0;
};

inline constexpr off_t kFileTextMax = off_t{64} * 1024 * 1024;

// Reads a file whose status is `st` up to the size that this says. EFBIG: more than kFileTextMax.
FileText read_text(int fd, const struct stat& st);

// Writes all of it, however often the kernel takes only a part. False with the number of the call,
// ENOSPC when it takes nothing more.
bool write_all(int fd, std::string_view bytes);

// Whether there is a directory; links are followed. False also when that cannot be told.
bool is_directory(const char* path);
bool is_directory(int fd);

} // namespace znc

#endif
