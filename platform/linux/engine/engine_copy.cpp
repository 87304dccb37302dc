#include "engine_copy.hpp"

#include "base/directory.hpp"
#include "base/failure.hpp"
#include "base/file.hpp"
#include "base/owned.hpp"
#include "system/open_confined.hpp"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr int kDepthMax = 128;

bool copy_owner(int to, const char* name, const struct stat& st)
{
    return ::fchownat(to, name, st.st_uid, st.st_gid, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH) == 0;
}

bool copy_link(int from, int to, const char* name, const struct stat& st)
{
    char target[4096];
    const ssize_t len = ::readlinkat(from, name, target, sizeof target - 1);
    if (len < 0)
        return false;
    target[len] = '\0';
    return ::symlinkat(target, to, name) == 0 && copy_owner(to, name, st);
}

bool copy_file(int from, int to, const char* name, const struct stat& st)
{
    const UniqueFd in(::openat(from, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const UniqueFd out(
        ::openat(to, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!in || !out)
        return false;
    ssize_t n;
    do
        n = ::sendfile(out.get(), in.get(), nullptr, std::size_t{1} << 30U);
    while (n > 0);
    // Changing the owner clears the set-user-ID bit, so the mode is set last.
    return n == 0 && copy_owner(to, name, st) && ::fchmod(out.get(), st.st_mode & 07777) == 0;
}

bool copy_entries(int from, int to, int depth);

bool copy_directory(int from, int to, const char* name, const struct stat& st, int depth)
{
    if (::mkdirat(to, name, 0700) != 0)
        return false;
    const UniqueFd in(::openat(from, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const UniqueFd out(::openat(to, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return in && out && copy_entries(in.get(), out.get(), depth + 1) && copy_owner(to, name, st) &&
           ::fchmod(out.get(), st.st_mode & 07777) == 0;
}

bool copy_entry(int from, int to, const char* name, int depth)
{
    struct stat st;
    if (::fstatat(from, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    if (S_ISDIR(st.st_mode))
        return copy_directory(from, to, name, st, depth);
    if (S_ISLNK(st.st_mode))
        return copy_link(from, to, name, st);
    if (S_ISREG(st.st_mode))
        return copy_file(from, to, name, st);
    return ::mknodat(to, name, st.st_mode, st.st_rdev) == 0 && copy_owner(to, name, st) &&
           ::fchmodat(to, name, st.st_mode & 07777, 0) == 0;
}

bool copy_entries(int from, int to, int depth)
{
    if (depth > kDepthMax)
        return znc::fail(ELOOP, false);
    const znc::UniqueDir list = znc::directory_listing(from);
    if (!list)
        return false;
    while (const dirent* entry = znc::next_entry(list.get()))
        if (!copy_entry(from, to, entry->d_name, depth))
            return false;
    return errno == 0;
}

} // namespace

bool directory_copy(int root, const char* path, int to, bool mode)
{
    const UniqueFd from =
        open_confined(root, path, O_RDONLY | O_DIRECTORY, RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS);
    if (!from)
        return errno == ENOENT || errno == ENOTDIR;
    struct stat st;
    return ::fstat(from.get(), &st) == 0 && copy_entries(from.get(), to, 0) &&
           copy_owner(to, "", st) && (!mode || ::fchmodat(to, ".", st.st_mode & 07777, 0) == 0);
}

} // namespace zn
