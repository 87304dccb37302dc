// zncStoreTree.cpp - see zncStoreTree.hpp.
#include "zncStoreTree.hpp"

#include "base/directory.hpp"
#include "base/failure.hpp"
#include "zarnel/fs.h"

#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kFileFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr std::size_t kChunk = 64 * 1024;
// cannot be exceeded by an extracted tree: a member's path has at most 255 characters
constexpr unsigned kLevelsMax = 200;

// Two directories to compare, with the buffers for it.
struct Pair {
    int a;
    int b;
    char* chunks; // two buffers of kChunk bytes
    unsigned level;
    int* error; // set if the comparison failed, which says nothing about the trees
};

bool same_trees(const Pair& pair);

// The result after a failed call: the trees differ if what was there a moment ago has been removed
// or replaced; otherwise the comparison itself has failed.
bool differs(const Pair& pair)
{
    if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP && errno != EINVAL)
        *pair.error = errno;
    return false;
}

znc::UniqueFd open_in(const Pair& pair, int dir, const char* name, int flags)
{
    znc::UniqueFd fd(::openat(dir, name, flags | O_CLOEXEC));
    if (!fd)
        static_cast<void>(differs(pair));
    return fd;
}

std::size_t read_chunk(const Pair& pair, int fd, char* chunk)
{
    std::size_t len = 0;
    while (len < kChunk) {
        const ssize_t n = ::read(fd, chunk + len, kChunk - len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            *pair.error = errno;
        if (n <= 0)
            break;
        len += static_cast<std::size_t>(n);
    }
    return len;
}

// Both files have the size `size`.
bool same_content(const Pair& pair, const char* name, off_t size)
{
    const znc::UniqueFd a = open_in(pair, pair.a, name, kFileFlags);
    const znc::UniqueFd b = open_in(pair, pair.b, name, kFileFlags);
    char* const x = pair.chunks;
    char* const y = pair.chunks + kChunk;
    while (a && b && size > 0) {
        const std::size_t len = read_chunk(pair, a.get(), x);
        if (len == 0 || len != read_chunk(pair, b.get(), y) || std::memcmp(x, y, len) != 0)
            return false;
        size -= static_cast<off_t>(len);
    }
    return a && b;
}

bool same_target(const Pair& pair, const char* name)
{
    const ssize_t n = ::readlinkat(pair.a, name, pair.chunks, kChunk);
    const ssize_t m = n < 0 ? n : ::readlinkat(pair.b, name, pair.chunks + kChunk, kChunk);
    if (n < 0 || m < 0)
        return differs(pair);
    return n == m &&
           std::memcmp(pair.chunks, pair.chunks + kChunk, static_cast<std::size_t>(n)) == 0;
}

bool same_directory(const Pair& pair, const char* name)
{
    const znc::UniqueFd a = open_in(pair, pair.a, name, kDirFlags);
    const znc::UniqueFd b = open_in(pair, pair.b, name, kDirFlags);
    return a && b && pair.level < kLevelsMax &&
           same_trees({a.get(), b.get(), pair.chunks, pair.level + 1, pair.error});
}

bool same_entry(const Pair& pair, const char* name)
{
    struct stat a = {};
    struct stat b = {};
    if (::fstatat(pair.a, name, &a, AT_SYMLINK_NOFOLLOW) != 0 ||
        ::fstatat(pair.b, name, &b, AT_SYMLINK_NOFOLLOW) != 0)
        return differs(pair);
    if (a.st_mode != b.st_mode || a.st_uid != b.st_uid || a.st_gid != b.st_gid)
        return false;
    if (S_ISDIR(a.st_mode)) // a directory's time is ignored: it may be that of the extraction
        return same_directory(pair, name);
    if (S_ISLNK(a.st_mode))
        return same_target(pair, name);
    return S_ISREG(a.st_mode) && a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec && same_content(pair, name, a.st_size);
}

// Calls `func` with each name in the directory `dir` of the pair. Returns the number of names, or
// -1 if one of the calls returned false or the directory cannot be read.
template <class Func> long each_name(const Pair& pair, int dir, Func func)
{
    znc::UniqueFd fd = open_in(pair, dir, ".", kDirFlags);
    if (!fd)
        return -1;
    const znc::UniqueDir stream = znc::directory_stream(std::move(fd));
    long count = 0;
    while (const dirent* const entry = stream ? znc::next_entry(stream.get()) : nullptr) {
        if (!func(entry->d_name))
            return -1;
        count++;
    }
    if (errno != 0)
        *pair.error = errno;
    return errno == 0 ? count : -1;
}

bool same_trees(const Pair& pair)
{
    const long count =
        each_name(pair, pair.a, [&](const char* name) { return same_entry(pair, name); });
    return count >= 0 && count == each_name(pair, pair.b, [](const char*) { return true; });
}

// Creates the empty directory ".old-<name>-XXXXXX" next to the tree.
znc::PathText make_aside(const char* tree)
{
    const char* const name = znc::last_component(tree);
    const std::string_view area(tree, static_cast<std::size_t>(name - tree));
    const znc::PathText start = znc::path_in(area, ".old-", name);
    znc::PathText aside = start ? znc::path_in(start.get(), "-XXXXXX") : nullptr;
    if (aside && ::mkdtemp(aside.get()) == nullptr)
        aside.reset();
    return aside;
}

} // namespace

namespace znc {

STATUS compare_trees(const char* a, const char* b, bool* same)
{
    const UniqueFd x(::open(a, kDirFlags));
    const UniqueFd y(x ? ::open(b, kDirFlags) : -1);
    const auto chunks = malloc_array<char>(2 * kChunk);
    struct stat stat_a = {};
    struct stat stat_b = {};
    *same = false;
    if (x && !y && (errno == ENOTDIR || errno == ELOOP))
        return OK; // not a tree
    if (!x || !y || !chunks || ::fstat(x.get(), &stat_a) != 0 || ::fstat(y.get(), &stat_b) != 0)
        return ERROR;
    int error = 0;
    *same = stat_a.st_mode == stat_b.st_mode && stat_a.st_uid == stat_b.st_uid &&
            stat_a.st_gid == stat_b.st_gid &&
            same_trees({x.get(), y.get(), chunks.get(), 0, &error});
    return *same || error == 0 ? OK : fail(error);
}

STATUS place_tree(LayerStage& stage, const char* tree, bool unrecorded)
{
    if (stage.publish(tree) != OK)
        return ERROR;
    if (stage.path() == nullptr)
        return OK;
    bool same = false;
    if (compare_trees(stage.path(), tree, &same) != OK)
        return ERROR;
    if (same) {
        stage.discard();
        return OK;
    }
    if (unrecorded)
        return znc::fail(EEXIST);
    // Rename the new tree to its ".old-" name before the exchange. Neither it nor the old tree,
    // which has that name afterwards, then looks like a leftover of a process that died.
    const PathText aside = make_aside(tree);
    if (!aside || stage.publish(aside.get()) != OK)
        return ERROR;
    if (znDirExchange(aside.get(), tree) == OK)
        return OK;
    return ERROR; // the directory set aside is removed by the next collection
}

} // namespace znc
