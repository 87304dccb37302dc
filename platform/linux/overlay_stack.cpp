// overlay_stack.cpp - see overlay_stack.hpp.
#include "overlay_stack.hpp"

#include "base/file.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr char kStackFile[] = ".zn-stack"; // NUL-terminated directories, then an empty string
constexpr std::size_t kStackMax = 1024 * 1024;

} // namespace

bool stack_write(int node, const char* const* dirs, std::uint32_t count)
{
    const UniqueFd file(
        ::openat(node, kStackFile, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    bool written = static_cast<bool>(file);
    for (std::uint32_t i = 0; written && i < count; i++)
        written = znc::write_all(file.get(), {dirs[i], std::strlen(dirs[i]) + 1});
    // The terminating empty string shows that the record is complete; a crash may have truncated
    // it.
    return written && znc::write_all(file.get(), {"", 1});
}

void stack_remove(int node)
{
    ::unlinkat(node, kStackFile, 0);
}

const char* StackText::next(const char* dir) const
{
    const char* const after = dir + std::strlen(dir) + 1;
    return after < text.get() + len - 1 ? after : nullptr;
}

StackText stack_read(int node)
{
    const UniqueFd file(::openat(node, kStackFile, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (!file || ::fstat(file.get(), &st) != 0)
        return {};
    const auto len = static_cast<std::size_t>(st.st_size);
    auto text = znc::malloc_array<char>(len <= kStackMax ? len : 0);
    if (!text)
        return {};
    const bool whole = len >= 3 && len <= kStackMax &&
                       ::read(file.get(), text.get(), len) == st.st_size && text[len - 1] == '\0' &&
                       text[len - 2] == '\0';
    if (whole)
        return {std::move(text), len};
    errno = ENOENT;
    return {};
}

UniqueFd stack_node(int devices, const char* name)
{
    // A non-recursive clone of the mount, in which nothing is mounted on `name`.
    const UniqueFd bare(static_cast<int>(::syscall(
        SYS_open_tree, devices, "", AT_EMPTY_PATH | OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC)));
    if (!bare)
        return {};
    return UniqueFd(::openat(bare.get(), name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

} // namespace zn
