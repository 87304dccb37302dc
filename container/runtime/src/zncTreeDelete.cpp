// zncTreeDelete.cpp - deleting trees that an image or a container wrote.
#include "zncTreeDelete.hpp"

#include "zncOwned.hpp"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kTopFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr unsigned kOpenLevels = 32; // levels that stay open while what is below them is removed

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

znc::UniqueDir open_stream(znc::UniqueFd fd)
{
    znc::UniqueDir dir(fd ? fdopendir(fd.get()) : nullptr);
    if (dir != nullptr)
        static_cast<void>(fd.release());
    return dir;
}

enum class Removed { kYes, kNotEmpty, kFailed };

// A file, link or empty directory goes at once, whatever it is, without looking at it. rmdir is
// asked before a directory is entered: it refuses a mount point, whose content is not the tree's.
Removed remove_entry(int dir, const char* name)
{
    if (unlinkat(dir, name, 0) == 0 || errno == ENOENT)
        return Removed::kYes;
    const int why = errno;
    if (why != EISDIR && why != EPERM) // POSIX has EPERM for a directory, and for other reasons
        return Removed::kFailed;
    if (unlinkat(dir, name, AT_REMOVEDIR) == 0 || errno == ENOENT)
        return Removed::kYes;
    if (errno == ENOTEMPTY || errno == EEXIST)
        return Removed::kNotEmpty;
    if (errno == ENOTDIR)
        errno = why;
    return Removed::kFailed;
}

enum class Scan { kEmptied, kSubdirectory, kFailed };

// Goes on reading `dir` and removes what can be removed, up to a subdirectory that has content,
// whose name (valid until the next read) and descriptor it gives.
Scan scan(DIR* dir, const char** name, znc::UniqueFd* child)
{
    for (;;) {
        errno = 0;
        const struct dirent* entry = readdir(dir);
        if (entry == nullptr)
            return errno == 0 ? Scan::kEmptied : Scan::kFailed;
        *name = entry->d_name;
        if (strcmp(*name, ".") == 0 || strcmp(*name, "..") == 0)
            continue;
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

// The directories above the current one, which are not kept open: their identities, so that ".." is
// trusted only when it leads back to where the way down came from.
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

// Back from an emptied directory to the one above, which is read from its beginning again.
znc::UniqueDir step_up(const znc::UniqueDir& dir, Trail* trail, DirId* emptied)
{
    *emptied = trail->last();
    trail->pop();
    znc::UniqueFd parent(openat(dirfd(dir.get()), "..", kDirFlags));
    DirId id;
    if (!parent || !id_of(parent.get(), &id))
        return nullptr;
    if (!same(id, trail->last())) { // somebody moved the directory away meanwhile
        errno = EBUSY;
        return nullptr;
    }
    return open_stream(std::move(parent));
}

// Empties a directory of any depth with two descriptors.
bool empty_deep(znc::UniqueFd top)
{
    Trail trail;
    DirId id;
    if (!id_of(top.get(), &id) || !trail.push(id))
        return false;
    DirId emptied = id; // nothing below has this identity
    znc::UniqueDir dir = open_stream(std::move(top));
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
        if (same(id, emptied)) { // it was empty a moment ago: somebody fills it as fast
            errno = ENOTEMPTY;
            return false;
        }
        if (!trail.push(id))
            return false;
        dir = open_stream(std::move(child));
    }
    return false;
}

bool empty_directory(znc::UniqueFd fd, unsigned level)
{
    if (level == kOpenLevels)
        return empty_deep(std::move(fd));
    const znc::UniqueDir dir = open_stream(std::move(fd));
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

// With a descriptor for each level, or, where there are not so many, with the two that always do.
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
    // The last step has a path buffer: what does not fit must not lose its content before.
    if (dir != nullptr && strnlen(dir, kPathMax) == kPathMax) {
        errno = ENAMETOOLONG;
        return ERROR;
    }
    znc::UniqueFd top(dir != nullptr ? open(dir, kTopFlags) : -1);
    if (top ? !empty_top(dir, std::move(top))
            : dir != nullptr && errno != ENOENT && errno != ENOTDIR)
        return ERROR;
    return zncUtilXdelete(dir); // an empty directory, a file or nothing: this ends
}
