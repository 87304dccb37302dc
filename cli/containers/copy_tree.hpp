// copy_tree.hpp - copies files and directory trees between a container and the host, by descriptors
// only. A container's processes may change either side at any time: no symbolic link is followed,
// and only regular files, directories and links are read or made. Used by cp and tree_extract.
#ifndef ZNC_CLI_CONTAINERS_COPY_TREE_HPP
#define ZNC_CLI_CONTAINERS_COPY_TREE_HPP

#include <functional>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace zncctl {

struct Owner {
    uid_t uid = 0;
    gid_t gid = 0;
};

// Writes the content of a file to a descriptor.
using FileContent = std::function<void(int)>;

// Removes a file or link. False with errno set; EBUSY for a mount point, since the kernel would
// detach what a container has mounted there.
bool remove_file(int dir, const std::string& name);

class TreeCopy {
  public:
    // New files belong to `owner`, or without one to the caller. They get the permission bits and
    // the time of modification of the source, without set-user-ID, set-group-ID and sticky bits.
    explicit TreeCopy(std::optional<Owner> owner) : owner_(owner) {}

    // Copies an open regular file to the name in the directory, up to the size that it had when the
    // copy began. A file or link of this name is replaced when the copy is complete; a file that is
    // mounted there is written in place. Throws std::runtime_error, as the others do.
    void copy_file(int file, int to, const std::string& name) const;

    // Creates the regular file of this name with the content that `fill` writes to a descriptor,
    // and with the mode and time of `st`. Existing files are replaced as by copy_file.
    void make_file(int to, const std::string& name, const struct stat& st,
                   const FileContent& fill) const;

    // Writes an open regular file to an existing one in place, which keeps its owner and mode.
    static void rewrite_file(int file, int existing, const std::string& name);

    // Makes a symbolic link. A file or link of this name is replaced.
    void make_link(const std::string& target, int to, const std::string& name) const;

    // Gives an open file or directory the owner, and the mode and time of `st`.
    void set_attributes(int file, const struct stat& st, const std::string& name) const;

    // Copies what is in an open directory into another one. Directories that exist there keep their
    // owner and mode. `path` names the source in messages.
    void copy_content(int from, int to, const std::string& path, unsigned depth = 0) const;

    // Creates a directory of this name with the attributes of the open directory `from`, and copies
    // its content.
    void copy_directory(int from, int to, const std::string& name, const std::string& path,
                        unsigned depth = 0) const;

  private:
    void copy_entry(int from, int to, const std::string& name, const std::string& path,
                    unsigned depth) const;
    void copy_link(int from, int to, const std::string& name) const;

    std::optional<Owner> owner_;
};

} // namespace zncctl

#endif
