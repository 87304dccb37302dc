// sentinel.hpp - a directory to extract into, with neighbours that must not change: "outside", and
// "target-evil", whose name begins like the target's.
#ifndef SENTINEL_HPP
#define SENTINEL_HPP

#include "memory_file.hpp"
#include "test_tree.hpp"

#include <map>
#include <string>

namespace fuzz {

class Sentinel {
  public:
    Sentinel();

    // The directories, for links and names that lead there.
    [[nodiscard]] const std::string& base() const { return base_.path(); }

    // Extracts an archive into the target, which may hold what earlier ones left there.
    void extract(std::string_view archive);

    // Looks at everything, deletes the target as a bundle's root is deleted, and makes a new one.
    void check_and_clear();

  private:
    [[nodiscard]] std::map<std::string, std::string> neighbours() const;
    void check_target() const;

    test_tree::TempDir base_;
    std::string target_ = base_ / "target";
    MemoryFile archive_;
    std::map<std::string, std::string> before_;
};

} // namespace fuzz

#endif
