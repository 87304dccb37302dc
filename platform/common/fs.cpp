// fs.cpp - paths, directories, the environment: what POSIX suffices for.
#include "zarnel/fs.h"

#include "base/failure.hpp"
#include "base/file.hpp"
#include "base/owned.hpp"
#include "exchange.hpp"

#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr mode_t kModeBits = 07777;
constexpr mode_t kPermBits = 0777;
constexpr int kReplaceTries = 8;

// mkdir with exactly the permission bits of `mode`, keeping a set-group-id bit inherited from the
// parent.
bool mkdir_exact(const char* path, mode_t mode)
{
    if (mkdir(path, mode) != 0)
        return false;
    struct stat st;
    if (lstat(path, &st) != 0)
        return false;
    const mode_t wanted = mode & kPermBits;
    return (st.st_mode & kPermBits) == wanted ||
           fchmodat(AT_FDCWD, path, (st.st_mode & kModeBits & ~kPermBits) | wanted,
                    AT_SYMLINK_NOFOLLOW) == 0;
}

bool make_or_find(const char* path, mode_t mode)
{
    if (mkdir_exact(path, mode))
        return true;
    if (errno != EEXIST)
        return false;
    if (znc::is_directory(path))
        return true;
    return znc::fail(ENOTDIR, false);
}

// Creates every missing parent of `path`. Modifies `path` temporarily.
bool make_parents(char* path, mode_t mode)
{
    for (char* p = path + 1; *p != '\0'; ++p) {
        if (*p != '/' || p[-1] == '/')
            continue;
        *p = '\0';
        const bool made = make_or_find(path, mode);
        *p = '/';
        if (!made)
            return false;
    }
    return true;
}

int create_new(int dir, const char* path, mode_t mode)
{
    znc::UniqueFd fd(openat(dir, path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (!fd)
        return -1;
    if (fchmod(fd.get(), mode) != 0) {
        const znc::ErrnoSaver keep;
        unlinkat(dir, path, 0);
        return -1;
    }
    return fd.release();
}

bool is_regular(const struct stat& st)
{
    if (S_ISREG(st.st_mode))
        return true;
    return znc::fail(S_ISDIR(st.st_mode) ? EISDIR : EEXIST, false);
}

int truncate_regular(int dir, const char* path, mode_t mode)
{
    // O_NONBLOCK: the file may have been replaced by a FIFO since the fstatat.
    znc::UniqueFd fd(openat(dir, path, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat st;
    if (!fd || fstat(fd.get(), &st) != 0 || !is_regular(st) || ftruncate(fd.get(), 0) != 0 ||
        fchmod(fd.get(), mode) != 0)
        return -1;
    return fd.release();
}

// Tries once to open an existing name for znFileCreateAt. Fails with ENOENT if the name was
// removed, by this function or by another process, so that the caller can create the file.
int replace_existing(int dir, const char* path, mode_t mode)
{
    struct stat st;
    if (fstatat(dir, path, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return -1;
    if (S_ISLNK(st.st_mode)) {
        if (unlinkat(dir, path, 0) == 0)
            errno = ENOENT;
        return -1;
    }
    return is_regular(st) ? truncate_regular(dir, path, mode) : -1;
}

// The text of strerror_r: that of POSIX writes it to the buffer, that of GNU returns a pointer to
// it.
[[maybe_unused]] const char* text_of(int, const char* room)
{
    return room[0] != '\0' ? room : "unknown error";
}
[[maybe_unused]] const char* text_of(const char* text, const char*)
{
    return text;
}

} // namespace

ssize_t znEnvGet(const char* name, char* buf, size_t bufLen)
{
    const char* value = name != nullptr ? getenv(name) : nullptr;
    if (value == nullptr || buf == nullptr)
        return -1;
    const size_t len = strlen(value);
    if (len >= bufLen)
        return -1;
    memcpy(buf, value, len + 1);
    return static_cast<ssize_t>(len);
}

char* znPathAppend(char* buf, size_t bufLen, const char* component)
{
    char* const end = buf + bufLen;
    char* out = buf + strnlen(buf, bufLen);
    if (out == end)
        return end;
    const char* src = component;
    if (out != buf && *src != '\0') {
        while (*src == '/')
            ++src;
        while (out != buf && out[-1] == '/')
            --out;
        *out++ = '/'; // overwrites a trailing "/" or the terminator
    }
    const size_t room = static_cast<size_t>(end - out);
    const size_t len = strlen(src);
    if (len < room) {
        memcpy(out, src, len + 1);
        return out + len;
    }
    if (room != 0)
        memcpy(out, src, room - 1);
    end[-1] = '\0';
    return end;
}

STATUS znMkdirParents(const char* path, mode_t mode)
{
    char copy[PATH_MAX];
    size_t len = strnlen(path, sizeof copy);
    if (len == sizeof copy)
        return znc::fail(ENAMETOOLONG);
    memcpy(copy, path, len);
    while (len > 1 && copy[len - 1] == '/')
        --len;
    copy[len] = '\0';
    if (make_or_find(copy, mode))
        return OK;
    if (errno != ENOENT || len == 0)
        return ERROR;
    return make_parents(copy, mode) && make_or_find(copy, mode) ? OK : ERROR;
}

int znFileCreate(const char* path, mode_t mode)
{
    return znFileCreateAt(AT_FDCWD, path, mode);
}

int znFileCreateAt(int dirFd, const char* path, mode_t mode)
{
    const mode_t bits = mode & kModeBits;
    // Try to create the file first: almost every file is new, and an existing file of another type
    // is then never opened.
    int fd = create_new(dirFd, path, bits);
    for (int n = 0; n < kReplaceTries && fd < 0 && errno == EEXIST; ++n) {
        fd = replace_existing(dirFd, path, bits);
        if (fd >= 0 || errno == EEXIST)
            return fd; // EEXIST: a type that is not replaced
        if (errno == ENOENT || errno == ELOOP)
            fd = create_new(dirFd, path, bits);
    }
    return fd;
}

STATUS zn::exchange_by_renames(const char* a, const char* b)
{
    char temporary[PATH_MAX];
    if (snprintf(temporary, sizeof temporary, "%s.aside", b) >= static_cast<int>(sizeof temporary))
        return znc::fail(ENAMETOOLONG);
    if (rename(b, temporary) != 0)
        return ERROR;
    if (rename(a, b) == 0)
        return rename(temporary, a) == 0 ? OK : ERROR;
    const znc::ErrnoSaver keep;
    rename(temporary, b);
    return ERROR;
}

STATUS znDirSync(const char* path)
{
    const znc::UniqueFd dir(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return dir && fsync(dir.get()) == 0 ? OK : ERROR;
}

void znErrorText(int errorNumber, char* buf, size_t bufLen)
{
    if (buf == nullptr || bufLen == 0)
        return;
    const znc::ErrnoSaver keep;
    char room[256] = "";
    snprintf(buf, bufLen, "%s", text_of(strerror_r(errorNumber, room, sizeof room), room));
}
