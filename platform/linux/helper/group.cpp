#include "group.hpp"

#include "request.hpp"

#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/magic.h>
#include <linux/sched.h>

namespace zn {
namespace {

constexpr char kProcesses[] = "/cgroup.procs"; // how the names of all entries end

// ENOENT and ENODEV: the control group is gone, and with it the namespace.
void enter(int directory, const char* path)
{
    const long result = write_text(directory, path, "0");
    check(result == -ENOENT || result == -ENODEV ? -ESRCH : result);
}

// Opens the directory of a group if it is in the v2 hierarchy; otherwise invalid.
sys::Fd open_v2(const char* entry)
{
    char path[4096];
    const std::size_t len = strlen(entry);
    if (len < sizeof kProcesses || len >= sizeof path)
        return sys::Fd();
    memcpy(path, entry, len);
    path[len - (sizeof kProcesses - 1)] = '\0';
    sys::Fd group(
        sys::call(__NR_openat, AT_FDCWD, sys::arg(path), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (group.valid() && sys::file_system_type(group.get()) != CGROUP2_SUPER_MAGIC)
        group.reset();
    return group;
}

} // namespace

void enter_groups(const Rules& rules)
{
    const char* entry = rules.entries();
    for (unsigned i = 0; i < rules->entries; i++, entry = next_text(entry))
        enter(AT_FDCWD, entry);
}

ProgramGroups::ProgramGroups(const Rules& rules)
{
    // After joining another cgroup namespace, this process could not create one outside of it.
    const bool joins = (rules->namespaces & CLONE_NEWCGROUP) != 0;
    const char* entry = rules.entries();
    for (unsigned i = 0; i < rules->entries; i++, entry = next_text(entry)) {
        sys::Fd group = joins ? sys::Fd() : open_v2(entry);
        if (group.valid())
            v2_ = static_cast<sys::Fd&&>(group);
        else
            enter(AT_FDCWD, entry);
    }
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
