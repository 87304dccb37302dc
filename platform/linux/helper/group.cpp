#include "group.hpp"

#include "request.hpp"

#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/magic.h>
#include <linux/sched.h>

namespace zn {
namespace {

constexpr std::uint64_t kLater = CLONE_NEWCGROUP;
constexpr char kProcesses[] = "/cgroup.procs"; // how the names of all entries end

// The path of a file in a group, or of its directory (""), by the path of its entry. Empty if that
// is no such path.
class GroupFile {
  public:
    GroupFile(const char* entry, const char* name)
    {
        const std::size_t len = strlen(entry);
        const std::size_t directory = len - (sizeof kProcesses - 1);
        if (len < sizeof kProcesses || directory + strlen(name) >= sizeof path_)
            return;
        memcpy(path_, entry, directory);
        memcpy(path_ + directory, name, strlen(name) + 1);
    }
    const char* path() const { return path_; }

  private:
    char path_[4096] = "";
};

// ENOENT and ENODEV: the control group is gone, and with it the namespace.
void enter(int directory, const char* path)
{
    const long result = write_text(directory, path, "0");
    check(result == -ENOENT || result == -ENODEV ? -ESRCH : result);
}

void enter(const char* entry)
{
    // This process has one thread. "tasks", which only v1 has, moves one thread, and the kernel
    // need not wait if that is the one that writes.
    if (write_text(AT_FDCWD, GroupFile(entry, "/tasks").path(), "0") < 0)
        enter(AT_FDCWD, entry);
}

// Opens the directory of a group if it is in the v2 hierarchy; otherwise invalid.
sys::Fd open_v2(const char* entry)
{
    sys::Fd group(sys::call(__NR_openat, AT_FDCWD, sys::arg(GroupFile(entry, "").path()),
                            O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (group.valid() && sys::file_system_type(group.get()) != CGROUP2_SUPER_MAGIC)
        group.reset();
    return group;
}

} // namespace

void enter_groups(const Rules& rules)
{
    const char* entry = rules.entries();
    for (unsigned i = 0; i < rules->entries; i++, entry = next_text(entry))
        enter(entry);
}

ProgramGroups::ProgramGroups(const Rules& rules)
{
    const char* entry = rules.entries();
    for (unsigned i = 0; i < rules->entries; i++, entry = next_text(entry)) {
        sys::Fd group = open_v2(entry);
        if (group.valid())
            v2_ = static_cast<sys::Fd&&>(group);
        else
            enter(entry);
    }
}

void ProgramGroups::join_namespaces(const Rules& rules, int process)
{
    const std::uint64_t first = rules->namespaces & ~kLater;
    if (first != 0)
        check(sys::call(__NR_setns, process, static_cast<long>(first)));
}

void ProgramGroups::join_last(const Rules& rules, int process)
{
    if ((rules->namespaces & kLater) != 0)
        check(sys::call(__NR_setns, process, static_cast<long>(kLater)));
}

long ProgramGroups::create_process(unsigned long flags) const
{
    if (v2_.valid()) {
        clone_args args = {};
        args.flags = flags | CLONE_INTO_CGROUP;
        args.cgroup = static_cast<std::uint64_t>(v2_.get());
        const long pid = sys::call(__NR_clone3, sys::arg(&args), static_cast<long>(sizeof args));
        if (pid >= 0)
            return pid;
        // For example an older kernel, or a seccomp filter that forbids the call.
        enter(v2_.get(), kProcesses + 1);
    }
    return sys::call(__NR_clone, static_cast<long>(flags));
}

} // namespace zn
