// mount_table.hpp - reads the mount table of this process. Called by the overlay devices and the
// control groups.
#ifndef ZN_MOUNT_TABLE_HPP
#define ZN_MOUNT_TABLE_HPP

#include "base/owned.hpp"

#include <cstdio>
#include <sys/types.h>

namespace zn {

// One mount. The texts are valid until the next call of MountTable::next() and may be changed.
struct Mount {
    char* point = nullptr; // the mount point, decoded
    char* type = nullptr;
    char* options = nullptr; // of the file system, still encoded: "rw,lowerdir=/a\040b"
    dev_t device = 0;
};

// Decodes octal escapes ("\\040") in place; the kernel uses them for spaces, newlines, commas and
// backslashes in fields.
void mount_unescape(char* text);

// The mounts in the order of mounting.
class MountTable {
  public:
    MountTable();
    // The next mount. False at the end of the table and after an error.
    bool next(Mount& mount);
    // Whether the whole table was read.
    [[nodiscard]] bool complete() const { return complete_; }

  private:
    struct FileCloser {
        void operator()(std::FILE* file) const noexcept
        {
            const znc::ErrnoSaver keep;
            std::fclose(file);
        }
    };

    std::unique_ptr<std::FILE, FileCloser> table_;
    znc::MallocPtr<char> line_;
    std::size_t room_ = 0;
    bool complete_ = false;
};

} // namespace zn

#endif
