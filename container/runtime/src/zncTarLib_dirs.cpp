// zncTarLib_dirs.cpp - directory times. Making members changes their directories' times, so these
// are kept in a file, not in memory, and set last.
#include "zncTarLib.hpp"

#include "zarnel/fs.h"

#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

namespace {

constexpr std::string_view kRecordPrefix = ".tard@#";
constexpr std::size_t kRecordSuffixLen = sizeof "/.tard@#0000.sto" - 1;
constexpr mode_t kRecordMode = 0777;

// "a/b" of "/a/b".
const char* relative_name(const char* arPath)
{
    return arPath + 1;
}

const char* record_name(const MT_TAR_SOFT& ctrl)
{
    return std::strrchr(ctrl.dir_fname.get(), '/') + 1;
}

// Make the file of directory times in the first directory made. That is new and empty, so whatever
// has the file's name is someone else's and is not opened.
STATUS open_record_file(MT_TAR_SOFT& ctrl)
{
    const char* const path = ctrl.targetDir.get();
    const std::size_t len = std::strlen(path);
    if (znc::kPathMax - len < kRecordSuffixLen)
        return ERROR;
    ctrl.dir_fname = znc::malloc_array<char>(znc::kPathMax);
    struct timespec now;
    if (ctrl.dir_fname == nullptr || clock_gettime(CLOCK_REALTIME, &now) != 0)
        return ERROR;
    const auto tag = static_cast<unsigned>(now.tv_nsec & 0xffff);
    std::memcpy(ctrl.dir_fname.get(), path, len);
    snprintf(ctrl.dir_fname.get() + len, znc::kPathMax - len, "/.tard@#%4.4x.sto", tag);
    const znc::UniqueFd dir(znDirOpenAt(znc::tar_parent(ctrl), std::strrchr(path, '/') + 1));
    if (!dir)
        return ERROR;
    ctrl.dir_fd.reset(openat(dir.get(), record_name(ctrl),
                             O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kRecordMode));
    return ctrl.dir_fd ? OK : ERROR;
}

STATUS append_record(MT_TAR_SOFT& ctrl, const DIR_TAR& record)
{
    const ssize_t n = write(ctrl.dir_fd.get(), &record, sizeof record);
    if (n == static_cast<ssize_t>(sizeof record)) {
        ++ctrl.dir_cnt;
        return OK;
    }
    if (n > 0) { // only whole records stay
        lseek(ctrl.dir_fd.get(), -n, SEEK_CUR);
        errno = ENOSPC;
    }
    return ERROR;
}

bool seek_back(const MT_TAR_SOFT& ctrl)
{
    return lseek(ctrl.dir_fd.get(), -static_cast<off_t>(sizeof(DIR_TAR)), SEEK_CUR) >= 0;
}

bool read_record_before(const MT_TAR_SOFT& ctrl, DIR_TAR& record)
{
    if (!seek_back(ctrl) || read(ctrl.dir_fd.get(), &record, sizeof record) != sizeof record)
        return false;
    record.name[sizeof record.name - 1] = '\0';
    return true;
}

// Put the record's name into the path buffer, behind the separator that the last member left there.
// Where that left none, its name was nothing and the path stays the target directory's. The file
// was within reach of others, so the name is checked like a member's. The member's "/", or NULL.
char* compose_recorded(MT_TAR_SOFT& ctrl, const DIR_TAR& record)
{
    char* const start = ctrl.targetDir.get() + ctrl.targetDirLen;
    char* const end = ctrl.targetDir.get() + znc::kPathMax;
    char* out = start;
    if (tarCopyCondense(&out, static_cast<std::size_t>(end - out), record.name,
                        std::strlen(record.name)) != OK ||
        out == start || out >= end)
        return nullptr;
    return mtAccess(&ctrl, start);
}

void apply_record(MT_TAR_SOFT& ctrl, const DIR_TAR& record)
{
    if (ctrl.targetDir[ctrl.targetDirLen] == '\0') {
        tarSetMtime(".", record.mtime, ctrl.targetFd.get());
        return;
    }
    const char* const last = compose_recorded(ctrl, record);
    if (last != nullptr)
        tarSetMtime(znc::tar_member_name(last), record.mtime, znc::tar_parent(ctrl));
}

void remove_record_file(MT_TAR_SOFT& ctrl)
{
    ctrl.dir_fd.reset();
    char* const arPath = ctrl.dir_fname.get() + ctrl.targetDirLen;
    if (mtAccess(&ctrl, arPath) != nullptr)
        unlinkat(znc::tar_parent(ctrl), record_name(ctrl), 0);
}

} // namespace

STATUS znc::tar_record_dir(MT_TAR_SOFT& ctrl, const char* arPath, time_t mtime) noexcept
{
    DIR_TAR record{};
    const std::size_t len = std::strlen(relative_name(arPath));
    if (ctrl.run.dry != nullptr || len >= sizeof record.name)
        return OK; // it keeps its current time
    if (ctrl.dir_cnt == 0 && open_record_file(ctrl) != OK)
        return ERROR;
    std::memcpy(record.name, relative_name(arPath), len);
    record.mtime = mtime;
    return append_record(ctrl, record);
}

bool znc::tar_is_record_file(const MT_TAR_SOFT& ctrl, const char* name) noexcept
{
    struct stat here;
    struct stat records;
    return ctrl.dir_fd && std::string_view(name).substr(0, kRecordPrefix.size()) == kRecordPrefix &&
           fstatat(tar_parent(ctrl), name, &here, AT_SYMLINK_NOFOLLOW) == 0 &&
           fstat(ctrl.dir_fd.get(), &records) == 0 && here.st_ino == records.st_ino &&
           here.st_dev == records.st_dev;
}

STATUS tarSetMtime(const char* fn, time_t mtime, int dir)
{
    const struct timespec times[2] = {{0, UTIME_OMIT}, {mtime, 0}};
    return utimensat(dir, fn, times, AT_SYMLINK_NOFOLLOW) == 0 ? OK : ERROR;
}

STATUS tarSetMtime(char* fn, time_t mtime)
{
    return tarSetMtime(fn, mtime, AT_FDCWD);
}

// Set the times in the reverse order of extraction. The first directory holds the record file, so
// its time is set once that is gone.
STATUS tarProcDirs(MT_TAR_SOFT* ctrl)
{
    DIR_TAR record;
    int n = ctrl->dir_cnt;
    while (n > 1 && ctrl->targetDir != nullptr && read_record_before(*ctrl, record)) {
        apply_record(*ctrl, record);
        seek_back(*ctrl);
        --n;
    }
    if (n == 1 && !read_record_before(*ctrl, record))
        n = 0;
    if (n > 0 && ctrl->dir_fd)
        remove_record_file(*ctrl);
    if (n == 1)
        apply_record(*ctrl, record);
    ctrl->dir_fname.reset();
    return OK;
}
