#include "confine.hpp"

#include "front/files.hpp"
#include "import/source/failure.hpp"

#include "base/owned.hpp"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <vector>

namespace zncimport {
namespace {

constexpr unsigned kNobody = 65534;

[[noreturn]] void fail(const char* what)
{
    throw Failure("", std::string("the process that reads the image cannot be confined: ") + what +
                          ": " + zncctl::error_text());
}

void close_others(std::span<const int> kept)
{
    std::vector<int> sorted(kept.begin(), kept.end());
    std::sort(sorted.begin(), sorted.end());
    unsigned next = STDERR_FILENO + 1;
    for (const int fd : sorted) {
        const auto number = static_cast<unsigned>(fd);
        if (fd < 0 || number < next)
            continue;
        if (number > next && ::close_range(next, number - 1, 0) != 0)
            fail("descriptors");
        next = number + 1;
    }
    if (::close_range(next, ~0U, 0) != 0)
        fail("descriptors");
}

// Restricts file access to opening files for reading below `source_dir`. If the kernel does not
// support Landlock, or it is disabled at boot, this does nothing.
void forbid_files(int source_dir)
{
    constexpr std::uint64_t kAll =
        (LANDLOCK_ACCESS_FS_MAKE_SYM << 1U) - 1; // all access rights of Landlock ABI 1
    const landlock_ruleset_attr all = {.handled_access_fs = kAll};
    const znc::UniqueFd rules(static_cast<int>(
        ::syscall(SYS_landlock_create_ruleset, &all, sizeof all.handled_access_fs, 0)));
    if (!rules) {
        if (errno == ENOSYS || errno == EOPNOTSUPP)
            return;
        fail("Landlock");
    }
    if (source_dir >= 0) {
        const landlock_path_beneath_attr below = {.allowed_access = LANDLOCK_ACCESS_FS_READ_FILE |
                                                                    LANDLOCK_ACCESS_FS_READ_DIR,
                                                  .parent_fd = source_dir};
        if (::syscall(SYS_landlock_add_rule, rules.get(), LANDLOCK_RULE_PATH_BENEATH, &below, 0) !=
            0)
            fail("Landlock");
    }
    if (::syscall(SYS_landlock_restrict_self, rules.get(), 0) != 0)
        fail("Landlock");
}

// Creates an empty directory, removes it, and returns its descriptor.
znc::UniqueFd no_directory()
{
    std::array<char, 32> path = {"/tmp/zncctl-import.XXXXXX"};
    if (::mkdtemp(path.data()) == nullptr)
        fail("an empty root");
    znc::UniqueFd dir(::open(path.data(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (::rmdir(path.data()) != 0 || !dir)
        fail("an empty root");
    return dir;
}

void leave_files_behind(int source_dir)
{
    const znc::UniqueFd empty = source_dir < 0 ? no_directory() : znc::UniqueFd();
    if (::fchdir(source_dir < 0 ? empty.get() : source_dir) != 0 || ::chroot(".") != 0)
        fail("the root directory");
}

// Returns false in a user namespace that does not map nobody: there, root is an unprivileged user
// of the host anyway.
bool change_user()
{
    const bool no_groups = ::setgroups(0, nullptr) == 0;
    const int groups_error = errno;
    if (::setresgid(kNobody, kNobody, kNobody) != 0 ||
        ::setresuid(kNobody, kNobody, kNobody) != 0) {
        if (errno != EINVAL)
            fail("the user");
        return false;
    }
    errno = groups_error;
    if (!no_groups)
        fail("the groups");
    return true;
}

// The process may keep CAP_DAC_OVERRIDE but not CAP_DAC_READ_SEARCH: the latter also permits
// open_by_handle_at(), which ignores the root directory.
void become_nobody(bool reads_everything)
{
    if (reads_everything && ::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0)
        fail("capabilities");
    if (change_user() && !reads_everything)
        return;
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> sets = {};
    if (reads_everything)
        sets[0].effective = sets[0].permitted = 1U << CAP_DAC_OVERRIDE;
    if (::syscall(SYS_capset, &header, sets.data()) != 0)
        fail("capabilities");
}

} // namespace

void confine(std::span<const int> kept, int source_dir)
{
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        fail("its process");
    const rlimit none = {0, 0};
    if (::setrlimit(RLIMIT_CORE, &none) != 0)
        fail("core dumps");
    close_others(kept);
    if (::geteuid() == 0) {
        leave_files_behind(source_dir);
        become_nobody(source_dir >= 0);
    }
    forbid_files(source_dir);
    // A change of user resets both of these settings.
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0)
        fail("its process");
}

} // namespace zncimport
