// zncTreeDelete.cpp - deletes trees that an image or a container wrote.
#include "zncTreeDelete.hpp"

#include "base/directory.hpp"
#include "base/failure.hpp"
#include "zncOwned.hpp"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kTopFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
// levels of directories kept open during the recursion; deeper ones use empty_deep()
constexpr unsigned kOpenLevels = 32;

struct DirId {
    dev_t dev;
    ino_t ino;
};

bool same(const DirId& a, const DirId& b)
{
    return a.dev == b.dev && a.ino == b.ino;
}

bool id_of(int fd, DirId* id)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        return false;
    *id = {st.st_dev, st.st_ino};
    return true;
}

enum class Removed { kYes, kNotEmpty, kFailed };

// Removes a file, link or empty directory without a stat. rmdir is tried before the directory is
// entered: it fails with EBUSY for a mount point, whose content does not belong to the tree.
Removed remove_entry(int dir, const char* name)
{
    if (unlinkat(dir, name, 0) == 0 || errno == ENOENT)
        return Removed::kYes;
    const int unlink_error = errno;
    // unlink of a directory is EISDIR on Linux, EPERM in POSIX, which also has other uses
    if (unlink_error != EISDIR && unlink_error != EPERM)
        return Removed::kFailed;
    if (unlinkat(dir, name, AT_REMOVEDIR) == 0 || errno == ENOENT)
        return Removed::kYes;
    if (errno == ENOTEMPTY || errno == EEXIST)
        return Removed::kNotEmpty;
    if (errno == ENOTDIR)
        errno = unlink_error;
    return Removed::kFailed;
}

enum class Scan { kEmptied, kSubdirectory, kFailed };

// Reads on in `dir` and removes entries until it finds a subdirectory with content. Returns the
// name of that (valid until the next read) and its descriptor.
Scan scan(DIR* dir, const char** name, znc::UniqueFd* child)
{
    for (;;) {
        const struct dirent* entry = znc::next_entry(dir);
        if (entry == nullptr)
            return errno == 0 ? Scan::kEmptied : Scan::kFailed;
        *name = entry->d_name;
        switch (remove_entry(dirfd(dir), *name)) {
        case Removed::kYes:
            continue;
        case Removed::kFailed:
            return Scan::kFailed;
        case Removed::kNotEmpty:
            child->reset(openat(dirfd(dir), *name, kDirFlags));
            return *child ? Scan::kSubdirectory : Scan::kFailed;
        }
    }
}

// The identities of the current directory and of those above it, which are not kept open. ".." is
// used only if it leads to the directory that was left on the way down.
class Trail {
  public:
    bool push(const DirId& id)
    {
        if (depth_ == room_ && !grow())
            return false;
        ids_[depth_++] = id;
        return true;
    }
    void pop() { --depth_; }
    [[nodiscard]] const DirId& last() const { return ids_[depth_ - 1]; }
    [[nodiscard]] std::size_t depth() const { return depth_; }

  private:
    bool grow()
    {
        const std::size_t room = room_ != 0 ? 2 * room_ : 64;
        znc::MallocPtr<DirId[]> ids = znc::malloc_array<DirId>(room);
        if (ids == nullptr)
            return false;
        std::copy_n(ids_.get(), depth_, ids.get());
        ids_ = std::move(ids);
        room_ = room;
        return true;
    }

    znc::MallocPtr<DirId[]> ids_;
    std::size_t depth_ = 0;
    std::size_t room_ = 0;
};

// Moves from an emptied directory to its parent, which is then read from the beginning again.
znc::UniqueDir step_up(const znc::UniqueDir& dir, Trail* trail, DirId* emptied)
{
    *emptied = trail->last();
    trail->pop();
    znc::UniqueFd parent(openat(dirfd(dir.get()), "..", kDirFlags));
    DirId id;
    if (!parent || !id_of(parent.get(), &id))
        return nullptr;
    if (!same(id, trail->last())) { // the directory was moved elsewhere
        return znc::fail(EBUSY, nullptr);
    }
    return znc::directory_stream(std::move(parent));
}

// Empties a directory of any depth with two open descriptors.
bool empty_deep(znc::UniqueFd top)
{
    Trail trail;
    DirId id;
    if (!id_of(top.get(), &id) || !trail.push(id))
        return false;
    DirId emptied = id; // no directory below `top` has this identity
    znc::UniqueDir dir = znc::directory_stream(std::move(top));
    while (dir != nullptr) {
        const char* name;
        znc::UniqueFd child;
        const Scan found = scan(dir.get(), &name, &child);
        if (found == Scan::kFailed)
            return false;
        if (found == Scan::kEmptied) {
            if (trail.depth() == 1)
                return true;
            dir = step_up(dir, &trail, &emptied);
            continue;
        }
        if (!id_of(child.get(), &id))
            return false;
        if (same(id, emptied)) { // it was emptied just before: another process keeps filling it
            return znc::fail(ENOTEMPTY, false);
        }
        if (!trail.push(id))
            return false;
        dir = znc::directory_stream(std::move(child));
    }
    return false;
}

bool empty_directory(znc::UniqueFd fd, unsigned level)
{
    if (level == kOpenLevels)
        return empty_deep(std::move(fd));
    const znc::UniqueDir dir = znc::directory_stream(std::move(fd));
    if (dir == nullptr)
        return false;
    for (;;) {
        const char* name;
        znc::UniqueFd child;
        const Scan found = scan(dir.get(), &name, &child);
        if (found != Scan::kSubdirectory)
            return found == Scan::kEmptied;
        if (!empty_directory(std::move(child), level + 1) ||
            unlinkat(dirfd(dir.get()), name, AT_REMOVEDIR) != 0)
            return false;
    }
}

// Empties a directory with one descriptor per level or, if the process runs out of descriptors,
// with two.
bool empty_top(const char* dir, znc::UniqueFd top)
{
    if (empty_directory(std::move(top), 0))
        return true;
    if (errno != EMFILE && errno != ENFILE)
        return false;
    znc::UniqueFd again(open(dir, kTopFlags));
    return again && empty_deep(std::move(again));
}

} // namespace

STATUS znc::delete_foreign_tree(const char* dir)
{
    // zncUtilXdelete, called last, copies the path into a buffer. Reject a path that is too long
    // for that before anything is removed.
    if (dir != nullptr && strnlen(dir, kPathMax) == kPathMax)
        return znc::fail(ENAMETOOLONG);
    znc::UniqueFd top(dir != nullptr ? open(dir, kTopFlags) : -1);
    if (top ? !empty_top(dir, std::move(top))
            : dir != nullptr && errno != ENOENT && errno != ENOTDIR)
        return ERROR;
    return zncUtilXdelete(dir); // the directory is empty now, so this terminates
}

STATUS zncImageBundleDelete(const char* pBundlePath)
{
    if (pBundlePath == nullptr)
        return ERROR;
    const int before = errno;
    if (::access(pBundlePath, F_OK) != 0) {
        errno = before; // a bundle that does not exist is ERROR with errno unchanged
        return ERROR;
    }
    return znc::delete_foreign_tree(pBundlePath);
}
