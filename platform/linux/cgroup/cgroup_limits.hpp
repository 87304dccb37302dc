// cgroup_limits.hpp - writes limits into the control files of a group. Used by the other
// files of this folder.
#ifndef ZN_CGROUP_LIMITS_HPP
#define ZN_CGROUP_LIMITS_HPP

#include "cgroup_tree.hpp"

namespace zn {

// The names of a limit's file in v1 and v2. Null: there is none.
struct LimitFile {
    const char* v1;
    const char* v2;
};

// The group in the hierarchy of one controller.
class LimitGroup {
  public:
    // 0, or an error number: ENOTSUP if there is no hierarchy for the controller, ENOENT if the
    // group does not exist in it.
    int open(const Hierarchies& hierarchies, const GroupPath& path, Controller controller);

    [[nodiscard]] int get() const { return group_.get(); }
    [[nodiscard]] bool unified() const { return unified_; }
    [[nodiscard]] bool has(const LimitFile& file) const;
    // ENOTSUP if the group does not have the file.
    [[nodiscard]] int write(const LimitFile& file, std::string_view text) const;
    [[nodiscard]] int write(const LimitFile& file, std::uint64_t number) const;
    // Negative numbers are written as no limit.
    [[nodiscard]] int write_limit(const LimitFile& file, std::int64_t limit) const;

  private:
    [[nodiscard]] const char* name(const LimitFile& file) const
    {
        return unified_ ? file.v2 : file.v1;
    }
    znc::UniqueFd group_;
    bool unified_ = false;
};

// These return 0, or an error number with `field` set.
int memory_apply(const Hierarchies& hierarchies, const GroupPath& path, const Resources& resources,
                 const char** field);
int devices_apply(const Hierarchies& hierarchies, const GroupPath& path,
                  const List<DeviceRule>& rules, const char** field);

// Convert weights of v1 (2 to 262144, and 10 to 1000) to those of v2 (1 to 10000).
std::uint64_t weight_of_shares(std::uint64_t shares);
std::uint64_t weight_of_io(std::uint32_t weight);

} // namespace zn

#endif
