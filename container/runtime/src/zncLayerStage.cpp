// zncLayerStage.cpp - see zncLayerStage.hpp.
#include "zncLayerStage.hpp"

#include "zarnel/fs.h"
#include "zncImageLib.hpp"
#include "zncTarLib.hpp"
#include "zncTreeLinks.hpp"

#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr char kLockName[] = "/.lock";
constexpr std::string_view kStagePrefix = ".unpack-";
constexpr char kStageName[] = "/.unpack-XXXXXX";
constexpr int kStoreTries = 8; // at a store that another one's failure removes meanwhile

bool is_directory(const char* path)
{
    struct stat st = {};
    return ::stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool lock_set(int fd, short type, int command)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    int result = 0;
    do
        result = ::fcntl(fd, command, &lock);
    while (result != 0 && errno == EINTR && command == F_OFD_SETLKW);
    return result == 0;
}

} // namespace

namespace znc {

PathText path_in(std::string_view base, const char* name)
{
    PathText path = malloc_array<char>(kPathMax);
    if (!path)
        return nullptr;
    char* const end = path.get() + kPathMax;
    if (base.size() >= kPathMax) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    std::memcpy(path.get(), base.data(), base.size());
    if (copy_end(path.get() + base.size(), end, name) == end) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    return path;
}

// The last one out takes the file along. Everyone lets go before he tries: of two who leave at once
// and still held it, neither would get it, and it would stay. In between somebody else may have
// removed it, and a new one may have its name.
void StoreLock::release() noexcept
{
    const ErrnoSaver keep;
    struct stat st = {};
    if (fd_ && lock_set(fd_.get(), F_UNLCK, F_OFD_SETLK) &&
        lock_set(fd_.get(), F_WRLCK, F_OFD_SETLK) && ::fstat(fd_.get(), &st) == 0 &&
        st.st_nlink != 0)
        ::unlink(path_.get());
    fd_.reset();
}

// Locks the file that has the name. One that was removed while it was waited for is let go again:
// a name is removed only by who holds its file exclusively.
STATUS StoreLock::open_locked()
{
    for (;;) {
        UniqueFd fd(::open(path_.get(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!fd)
            return ERROR;
        alone_ = lock_set(fd.get(), F_WRLCK, F_OFD_SETLK);
        struct stat st = {};
        if ((!alone_ && !lock_set(fd.get(), F_RDLCK, F_OFD_SETLKW)) || ::fstat(fd.get(), &st) != 0)
            return ERROR;
        if (st.st_nlink == 0)
            continue;
        fd_ = std::move(fd);
        return OK;
    }
}

// An unpack that fails takes a store that it made itself along, if it is empty.
STATUS StoreLock::make_and_open(std::string_view base)
{
    const PathText dir = path_in(base, "");
    for (int n = 0; dir && n < kStoreTries; ++n) {
        if (znMkdirParents(dir.get(), 0700) != OK)
            return ERROR;
        if (open_locked() == OK)
            return OK;
        if (errno != ENOENT)
            return ERROR;
    }
    return ERROR;
}

STATUS StoreLock::take(std::string_view base)
{
    path_ = path_in(base, kLockName);
    if (!path_ || make_and_open(base) != OK)
        return ERROR;
    if (!alone_)
        return OK;
    remove_leftovers(base);
    return lock_set(fd_.get(), F_RDLCK, F_OFD_SETLK) ? OK : ERROR;
}

void StoreLock::remove_leftovers(std::string_view base) const
{
    const PathText dir = path_in(base, "/");
    if (!dir)
        return;
    const UniqueDir stream(::opendir(dir.get()));
    if (!stream)
        return;
    while (const dirent* entry = ::readdir(stream.get())) {
        if (!std::string_view(entry->d_name).starts_with(kStagePrefix))
            continue;
        const PathText leftover = path_in({dir.get(), base.size() + 1}, entry->d_name);
        if (leftover)
            (void)delete_foreign_tree(leftover.get());
    }
}

STATUS LayerStage::fill(const char* layerFile, std::string_view base,
                        const std::atomic<bool>* cancel)
{
    if (lock_.take(base) != OK)
        return ERROR;
    path_ = path_in(base, kStageName);
    made_ = path_ && ::mkdtemp(path_.get()) != nullptr;
    return made_ ? extract_layer(layerFile, path_.get(), cancel) : ERROR;
}

STATUS LayerStage::publish(const char* name)
{
    if (::rename(path_.get(), name) == 0) {
        made_ = false;
        return OK;
    }
    return (errno == EEXIST || errno == ENOTEMPTY) && is_directory(name) ? OK : ERROR;
}

void LayerStage::discard() noexcept
{
    const ErrnoSaver keep;
    if (made_)
        (void)delete_foreign_tree(path_.get());
    made_ = false;
    lock_.release();
}

} // namespace znc
