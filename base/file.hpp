// file.hpp - opening regular files without blocking, reading and writing whole files. Used for
// image layouts, JSON documents and records of the store. What was read is verified elsewhere
// (zncDigest, zncBlob).
#ifndef ZNC_BASE_FILE_HPP
#define ZNC_BASE_FILE_HPP

#include "owned.hpp"

#include <cstddef>
#include <string_view>

#include <sys/stat.h>
#include <sys/types.h>

namespace znc {

// Opens the regular file `path` for reading and returns its status. Other file types are not
// opened, since opening a device may have side effects. Returns an empty UniqueFd with EINVAL if it
// is not a regular file, else with the error of the failing call.
[[nodiscard]] UniqueFd open_regular(const char* path, struct stat* st);

// The content of a file in memory.
struct FileText {
    MallocPtr<char[]> bytes; // NUL-terminated; null on failure, with errno set
    std::size_t len = 0;
};

inline constexpr off_t kFileTextMax = off_t{64} * 1024 * 1024;

// Reads up to st.st_size bytes of the file. EFBIG if the size exceeds kFileTextMax.
FileText read_text(int fd, const struct stat& st);

// Writes all bytes, continuing after partial writes. False with the error of write(), ENOSPC if it
// writes nothing.
bool write_all(int fd, std::string_view bytes);

// Whether the path, after links, is a directory. False also if that cannot be determined.
bool is_directory(const char* path);
bool is_directory(int fd);

} // namespace znc

#endif
