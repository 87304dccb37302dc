// files.hpp - reads and writes whole files.
#ifndef ZNC_FRONT_FILES_HPP
#define ZNC_FRONT_FILES_HPP

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>

#include "base/file.hpp"
#include "base/owned.hpp"

namespace zncctl {

// Opens a regular file for reading; never blocks. Invalid with errno set on failure; EINVAL for a
// FIFO or a device, EISDIR for a directory.
znc::UniqueFd open_regular(const std::string& path, int dir = AT_FDCWD);

// A path by which the file of a descriptor can be opened again, even if it was renamed or removed.
std::string descriptor_path(int fd);

// The error message after a failed open_regular() or read_file().
std::string read_error_text();

// The content of a regular file. Nullopt with errno set if it cannot be read or is not a regular
// file; EFBIG if it is larger than 64 MiB.
std::optional<std::string> read_file(const std::string& path, int dir = AT_FDCWD);

// The names of the entries of a directory (not owned), in no particular order. Nullopt with errno
// set.
std::optional<std::vector<std::string>> names_in(int directory);

// Reads a descriptor from its position to the end, or to a read error, which is ignored: callers
// follow a growing file and read again later.
std::string read_to_end(int file);

// Reads a pipe from which reading does not block to its end. Nullopt with errno set: EFBIG if there
// is more than `most`, ETIMEDOUT if the end does not come in time.
std::optional<std::string> read_pipe(int pipe, std::size_t most,
                                     std::chrono::milliseconds patience);

// The C library's message for errno.
std::string error_text();

// Throws std::runtime_error with the text "OBJECT: " and the message for errno.
[[noreturn]] void throw_error(const std::string& object);

using znc::write_all;

// Replaces the content of the file atomically and, with `lasting`, syncs it to disk. False with
// errno set, and no temporary file left.
bool replace_file(int dir, const char* name, std::string_view content, bool lasting = false);

} // namespace zncctl

#endif
