// zncImageLib_store.cpp - the layer store: one directory per layer, named by the digest of its
// archive and shared by all images. A layer is extracted under a name of its own and renamed when
// it is whole, so a directory with a layer's name is a layer, whoever was killed when.
//
// A lock file in the store tells live extractions from dead ones: who extracts holds it shared, who
// removes leftovers holds it exclusively. The locks belong to the open file, not to the process
// (F_OFD_SETLK of POSIX.1-2024), so they also hold between tasks of one process, and they end with
// their holder, however it ends.
#include "zncImageLib.hpp"

#include "zarnel/fs.h"
#include "zncTarLib.hpp"
#include "zncTreeLinks.hpp"

#include <cstdio>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr char kLockName[] = "/.lock";
constexpr std::string_view kStagePrefix = ".unpack-";
constexpr char kStageName[] = "/.unpack-XXXXXX";

using PathText = znc::MallocPtr<char[]>;

// `base` followed by `name`; null with the task error number set when memory is short or it does
// not fit.
PathText path_in(std::string_view base, const char* name)
{
    PathText path = znc::malloc_array<char>(znc::kPathMax);
    if (!path)
        return nullptr;
    char* const end = path.get() + znc::kPathMax;
    if (base.size() >= znc::kPathMax) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    std::memcpy(path.get(), base.data(), base.size());
    if (znc::copy_end(path.get() + base.size(), end, name) == end) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    return path;
}

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

class StoreLock {
  public:
    StoreLock() = default;
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;
    ~StoreLock();

    // Takes the lock shared; whoever can have it exclusively before removes what the dead left.
    STATUS take(std::string_view base);

  private:
    STATUS open_locked();
    void remove_leftovers(std::string_view base) const;

    PathText path_;
    znc::UniqueFd fd_;
    bool alone_ = false;
};

// The last one out takes the file along.
StoreLock::~StoreLock()
{
    const znc::ErrnoSaver keep;
    if (fd_ && lock_set(fd_.get(), F_WRLCK, F_OFD_SETLK))
        ::unlink(path_.get());
}

// Locks the file that has the name. One that was removed while it was waited for is let go again:
// a name is removed only by who holds its file exclusively.
STATUS StoreLock::open_locked()
{
    for (;;) {
        znc::UniqueFd fd(::open(path_.get(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
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

STATUS StoreLock::take(std::string_view base)
{
    path_ = path_in(base, kLockName);
    if (!path_ || open_locked() != OK)
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
    const znc::UniqueDir stream(::opendir(dir.get()));
    if (!stream)
        return;
    while (const dirent* entry = ::readdir(stream.get())) {
        if (!std::string_view(entry->d_name).starts_with(kStagePrefix))
            continue;
        const PathText leftover = path_in({dir.get(), base.size() + 1}, entry->d_name);
        if (leftover)
            (void)znc::delete_foreign_tree(leftover.get());
    }
}

// The directory a layer is extracted into; removed again unless it was published.
class Stage {
  public:
    Stage() = default;
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;
    ~Stage()
    {
        const znc::ErrnoSaver keep;
        if (made_)
            (void)znc::delete_foreign_tree(path_.get());
    }

    STATUS make(std::string_view base)
    {
        path_ = path_in(base, kStageName);
        made_ = path_ && ::mkdtemp(path_.get()) != nullptr;
        return made_ ? OK : ERROR;
    }
    [[nodiscard]] const char* path() const { return path_.get(); }

    // Gives it its final name, unless another one was faster: that one stays then.
    STATUS publish(const char* name)
    {
        if (::rename(path_.get(), name) == 0) {
            made_ = false;
            return OK;
        }
        return (errno == EEXIST || errno == ENOTEMPTY) && is_directory(name) ? OK : ERROR;
    }

  private:
    PathText path_;
    bool made_ = false;
};

} // namespace

STATUS znc::extract_layer(const char* layerFile, const char* dir)
{
    errno = 0;
    return tar_extract_whole(layerFile, dir, kTarLayerBlocks);
}

STATUS znc::store_layer(const char* layerFile, const char* layerDir, std::size_t baseLen)
{
    if (is_directory(layerDir))
        return OK;
    const std::string_view base(layerDir, baseLen);
    const PathText dir = path_in(base, "");
    StoreLock lock;
    Stage stage;
    if (!dir || znMkdirParents(dir.get(), 0700) != OK || lock.take(base) != OK ||
        stage.make(base) != OK || extract_layer(layerFile, stage.path()) != OK)
        return ERROR;
    return stage.publish(layerDir);
}
