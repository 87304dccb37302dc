// files.hpp - small files as a whole.
#ifndef ZNC_FRONT_FILES_HPP
#define ZNC_FRONT_FILES_HPP

#include <optional>
#include <string>
#include <string_view>

#include <fcntl.h>

#include "base/file.hpp"
#include "base/owned.hpp"

namespace zncctl {

// Opens a regular file for reading, never waiting for anything. Invalid with errno set, EINVAL for
// a FIFO, a socket or a device.
znc::UniqueFd open_regular(const std::string& path, int dir = AT_FDCWD);

// A path by which the file behind a descriptor is opened anew, whatever its name has become.
std::string descriptor_path(int fd);

// What is known of a failed open_regular or read_file.
std::string read_error_text();

// Nothing with errno set when it cannot be read or is no regular file, EFBIG when it is larger than
// 64 MiB.
std::optional<std::string> read_file(const std::string& path, int dir = AT_FDCWD);

// What the task error number says, as the C library puts it.
std::string error_text();

// Throws std::runtime_error: "OBJECT: " and what the task error number says.
[[noreturn]] void throw_error(const std::string& object);

using znc::write_all;

// Gives the file this content in one step, with `lasting` on the medium; false with errno set.
bool replace_file(int dir, const char* name, std::string_view content, bool lasting = false);

} // namespace zncctl

#endif
