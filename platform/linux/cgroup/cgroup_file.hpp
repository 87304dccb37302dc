// cgroup_file.hpp - reads and writes the control files of a group. Called by the other files of
// this folder.
//
// Groups are directory descriptors, not owned. No symbolic link is followed. Functions that return
// an int return 0 or an error number; ENOENT if the group does not have the file.
#ifndef ZN_CGROUP_FILE_HPP
#define ZN_CGROUP_FILE_HPP

#include "base/list.hpp"

#include <cstdint>
#include <string_view>

namespace zn {

// Opens a group below `top`, also several components below it. Empty with errno set on failure.
znc::UniqueFd group_open(int top, const char* path);

// Opens a control file. Empty with errno set on failure.
znc::UniqueFd control_open(int group, const char* file, int flags);

// Writes the text by one call: the kernel takes each call as a complete value.
int control_write(int group, const char* file, std::string_view text);
// The same with a file that is open.
int control_put(int file, std::string_view text);

bool control_exists(int group, const char* file);

// Reads a control file line by line.
class ControlLines {
  public:
    ControlLines(int group, const char* file);
    // The next line without its end, valid until the next call. Null at the end and after an error.
    const char* next();
    // 0, or why next() ended early. E2BIG: a line is longer than a page.
    [[nodiscard]] int error() const { return error_; }

  private:
    bool fill();

    znc::UniqueFd file_;
    int error_ = 0;
    std::size_t begin_ = 0; // of the data that was read but not returned yet
    std::size_t end_ = 0;
    char text_[4096 + 1] = {};
};

// A decimal number, or "max", which is UINT64_MAX. False if the text begins with neither.
bool read_number(const char* text, std::uint64_t& number);

// Reads the number that a file consists of.
int control_number(int group, const char* file, std::uint64_t& number);

// Reads the number behind `key` and a blank in a file of such lines. ENOENT also if the key is
// missing.
int control_value(int group, const char* file, const char* key, std::uint64_t& number);

} // namespace zn

#endif
