// tree_archive.hpp - writes a directory tree of a container to an archive, by descriptors only. A
// container's processes may change the tree at any time: no symbolic link is followed, and files
// that are removed or replaced during the call are left out. Used by export and cp.
#ifndef ZNC_CLI_CONTAINERS_TREE_ARCHIVE_HPP
#define ZNC_CLI_CONTAINERS_TREE_ARCHIVE_HPP

#include "copy_tree.hpp"
#include "tar_writer.hpp"

#include <functional>
#include <map>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>

namespace zncctl {

class TreeArchive {
  public:
    // Translates the owner of a file into that of its member.
    using OwnerFunc = std::function<Owner(Owner)>;

    // Without `owner_of`, members have the owners that the files have.
    explicit TreeArchive(int fd, OwnerFunc owner_of = {})
        : writer_(fd), owner_of_(std::move(owner_of))
    {
    }

    // Adds the contents of an open directory; `path`, their prefix in the archive, is "" or ends
    // with "/". Devices and sockets are left out. Throws std::runtime_error, as the others do.
    void add_content(int dir, const std::string& path, unsigned depth = 0);
    // Adds an open directory itself.
    void add_directory(int dir, const std::string& path);
    // Adds an open regular file.
    void add_file(int file, const std::string& path);
    // Ends the archive, and prints what was left out.
    void finish(const std::string& id);

  private:
    void add_entry(int dir, const std::string& name, const std::string& path, unsigned depth);
    void add_subdirectory(int dir, const std::string& name, const std::string& path,
                          unsigned depth);
    void add_link(int dir, const std::string& name, const std::string& path, const struct stat& st);
    void add_data(int file, const std::string& path);
    bool add_hard_link(const std::string& path, const struct stat& st);

    TarMember member_of(const struct stat& st, const std::string& path, TarType type);

    TarWriter writer_;
    OwnerFunc owner_of_;
    std::map<std::pair<uid_t, gid_t>, Owner> owners_;       // that were translated
    std::map<std::pair<dev_t, ino_t>, std::string> linked_; // files with several names
    std::size_t left_out_ = 0;
    std::size_t shrunk_ = 0;
};

} // namespace zncctl

#endif
