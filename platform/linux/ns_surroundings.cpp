#include "ns_surroundings.hpp"

#include "base/owned.hpp"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <span>
#include <sys/syscall.h>
#include <unistd.h>

namespace zn {
namespace {

constexpr int kIoPriorityOfProcess = 1;

// Reads a file of procfs whole; false if it is longer than `text`.
bool read_whole(const char* path, std::span<char> text)
{
    const znc::UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
    std::memset(text.data(), 0, text.size());
    std::size_t at = 0;
    while (file && at < text.size()) {
        const ssize_t n = ::read(file.get(), text.data() + at, text.size() - at);
        if (n <= 0)
            return n == 0;
        at += static_cast<std::size_t>(n);
    }
    return false;
}

} // namespace

bool Surroundings::read()
{
    sched_param priority = {};
    policy_ = ::sched_getscheduler(0);
    const bool scheduled = policy_ >= 0 && ::sched_getparam(0, &priority) == 0;
    priority_ = priority.sched_priority;
    errno = 0; // -1 is also a nice value
    nice_ = ::getpriority(PRIO_PROCESS, 0);
    if (!scheduled || errno != 0)
        return false;
    // ENOSYS: the kernel was built without I/O priorities.
    ioPriority_ = static_cast<int>(::syscall(SYS_ioprio_get, kIoPriorityOfProcess, 0));
    processors_ = {};
    if (::syscall(SYS_sched_getaffinity, 0, sizeof processors_, processors_.data()) <= 0)
        return false;
    int resource = 0;
    for (struct rlimit& limit : limits_)
        if (::getrlimit(static_cast<__rlimit_resource>(resource++), &limit) != 0)
            return false;
    return ::uname(&names_) == 0 && read_whole("/proc/self/cgroup", groups_) &&
           read_whole("/proc/self/oom_score_adj", score_);
}

bool Surroundings::operator==(const Surroundings& other) const
{
    const auto is_same = [](const struct rlimit& a, const struct rlimit& b) {
        return a.rlim_cur == b.rlim_cur && a.rlim_max == b.rlim_max;
    };
    return policy_ == other.policy_ && priority_ == other.priority_ && nice_ == other.nice_ &&
           ioPriority_ == other.ioPriority_ && processors_ == other.processors_ &&
           std::strcmp(names_.nodename, other.names_.nodename) == 0 &&
           std::strcmp(names_.domainname, other.names_.domainname) == 0 &&
           std::equal(limits_.begin(), limits_.end(), other.limits_.begin(), is_same) &&
           groups_ == other.groups_ && score_ == other.score_;
}

} // namespace zn
