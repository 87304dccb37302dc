// tree_extract.hpp - extracts an archive into a directory of a container, by descriptors only. The
// archive is untrusted, and the container's processes may change the tree at any time: neither
// names nor links can lead outside of the container's root. Used by cp.
#ifndef ZNC_CLI_CONTAINERS_TREE_EXTRACT_HPP
#define ZNC_CLI_CONTAINERS_TREE_EXTRACT_HPP

#include "copy_tree.hpp"
#include "tar_reader.hpp"

#include <string>
#include <vector>

#include "base/owned.hpp"

namespace zncctl {

class TreeExtract {
  public:
    // `root` is the root of the container, `directory` an existing directory in it, `owner` that of
    // all new files.
    TreeExtract(int root, std::string directory, Owner owner)
        : root_(root), directory_(std::move(directory)), copy_(owner)
    {
    }

    // Extracts all members. Files and links that exist are replaced, directories are kept. Devices,
    // sparse files, and names with a component ".." are refused. Throws std::runtime_error.
    void extract(TarReader& archive);

  private:
    // The attributes of a new directory, which are set when its content is complete.
    struct Pending {
        std::string path;
        struct stat st;
    };

    void add(TarReader& archive, const TarMember& member);
    void add_directory(const std::string& path, const struct stat& st);
    void add_hard_link(const std::string& target, const std::string& path);
    [[nodiscard]] znc::UniqueFd open(const std::string& path) const;
    [[nodiscard]] znc::UniqueFd parent_of(const std::string& path);
    znc::UniqueFd make_directory(const std::string& path);

    int root_;
    std::string directory_;
    TreeCopy copy_;
    std::vector<Pending> pending_;
};

} // namespace zncctl

#endif
