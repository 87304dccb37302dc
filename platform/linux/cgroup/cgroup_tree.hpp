// cgroup_tree.hpp - the mounted hierarchies of control groups, the paths of groups in them, and
// walking over a group and those below it. Called by the other files of this folder; tests use it
// to work on hierarchies of their choice.
#ifndef ZN_CGROUP_TREE_HPP
#define ZN_CGROUP_TREE_HPP

#include "cgroup.hpp"
#include "cgroup_file.hpp"

namespace zn {

// Where hierarchies are mounted, or below it.
inline constexpr char kCgroupTop[] = "/sys/fs/cgroup";

// Controllers by their v1 names. On v2, cpuacct, devices and freezer are functions of every group,
// and blkio is "io".
enum class Controller : unsigned {
    kCpu,
    kCpuacct,
    kCpuset,
    kMemory,
    kDevices,
    kFreezer,
    kBlkio,
    kPids,
    kHugetlb,
};
inline constexpr unsigned kControllers = 9;

struct Hierarchy {
    znc::UniqueFd root;
    dev_t device = 0;
    Text point;               // the mount point
    bool unified = false;     // cgroup v2
    bool delegated = false;   // this process may create groups below its own one only
    unsigned controllers = 0; // of a v1 hierarchy: bits by Controller
};

struct Hierarchies {
    CgroupVersion version = CgroupVersion::kNone;
    List<Hierarchy> all;

    // The hierarchy that has the controller: one of v1, else the unified one, whose groups may lack
    // the files of the controller. Null if there is none.
    [[nodiscard]] const Hierarchy* with(Controller controller) const;
};

// Reads from the mount table which hierarchies are mounted at or below /sys/fs/cgroup. Those in
// whose root this process may not create groups are left out: mounted read-only, or owned by
// another user. 0 or an error number.
int hierarchies_read(Hierarchies& hierarchies);

// Adds a hierarchy that is mounted at `point`. 0 or an error number.
int hierarchies_add(Hierarchies& hierarchies, const char* point, bool unified,
                    unsigned controllers);

// Whether this process may create the group and move itself there from the group it is in.
bool group_may_create(const Hierarchies& hierarchies, const char* path);

// A checked path of a group, without "/" at its beginning: "zarnel/web".
class GroupPath {
  public:
    // EINVAL for paths that identify no group; see cgroup.hpp.
    int set(const char* path);
    [[nodiscard]] const char* text() const { return text_; }
    [[nodiscard]] unsigned parts() const { return parts_; }
    // The path of the first `parts` components; ".", the root, for 0.
    void first(unsigned parts, GroupPath& prefix) const;
    // The last component.
    [[nodiscard]] const char* name() const;

  private:
    char text_[kCgroupPathMax + 1] = "";
    unsigned parts_ = 0;
};

// Opens the group in one hierarchy. Empty with errno set on failure, ENOENT if it does not exist.
inline znc::UniqueFd group_open(const Hierarchy& hierarchy, const GroupPath& path)
{
    return group_open(hierarchy.root.get(), path.text());
}

// Checks the usual paths of the freezer, without reading the mount table. False if the group is not
// found there.
bool cgroup_frozen_usual(const char* path, bool& frozen);

// Callbacks for each group of a walk. Both return 0, or an error number that ends the walk.
struct GroupVisit {
    virtual int enter(int /*group*/) { return 0; } // before the groups below it
    // After the groups below it, for all but the group where the walk began.
    virtual int leave(int /*parent*/, const char* /*name*/) { return 0; }

  protected:
    ~GroupVisit() = default;
};

// Visits a group and all groups below it. Uses two descriptors and no recursion, however deep the
// groups are. Groups that are removed during the walk are skipped. 0 or an error number.
int groups_visit(int top, GroupVisit& visit);

// Appends the processes in the group and those below it, sorted, each once. A process in a PID
// namespace outside this process's has the number 0. ENOENT if the group exists in no hierarchy.
int group_processes(const Hierarchies& hierarchies, const GroupPath& path, List<int>& pids);

// The functions of cgroup.hpp on given hierarchies.
int cgroup_create(const Hierarchies& hierarchies, const char* path, const Resources& resources,
                  const char** field);
int cgroup_complete(const Hierarchies& hierarchies, const char* path, int pid,
                    const Resources& resources, const char** field);
int cgroup_limit(const Hierarchies& hierarchies, const char* path, const Resources& resources,
                 const char** field);
int cgroup_directories(const Hierarchies& hierarchies, const char* path,
                       List<GroupDirectory>& directories);
int cgroup_entries(const Hierarchies& hierarchies, const char* path, List<Text>& entries);
int cgroup_freeze(const Hierarchies& hierarchies, const char* path, bool frozen);
int cgroup_frozen(const Hierarchies& hierarchies, const char* path, bool& frozen);
int cgroup_use(const Hierarchies& hierarchies, const char* path, CgroupUse& use);
int cgroup_processes(const Hierarchies& hierarchies, const char* path, List<int>& pids);
int cgroup_remove(const Hierarchies& hierarchies, const char* path);

// Parts of them that other files of this folder need.
int limits_apply(const Hierarchies& hierarchies, const GroupPath& path, const Resources& resources,
                 const char** field);
int group_freeze(const Hierarchies& hierarchies, const GroupPath& path, bool frozen,
                 int milliseconds);
// Removes the groups below `group`, without its processes. EBUSY if one still has processes at the
// deadline, or if groups are left ten seconds after it.
int subgroups_remove(int group, std::int64_t deadline);

} // namespace zn

#endif
