/*
 * fs.h - helpers for paths, directories and the environment that POSIX does not have. The functions
 * are stateless and thread-safe.
 */
#ifndef ZARNEL_FS_H
#define ZARNEL_FS_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The device that discards everything written to it. */
#define ZN_NULL_DEVICE "/dev/null"

/*
 * Copy the environment variable `name` into `buf`. Returns the value's length, or -1 (errno
 * unchanged) when the variable is unset or its value and terminator do not fit in `bufLen` bytes;
 * `buf` is then untouched.
 */
ssize_t znEnvGet(const char* name, char* buf, size_t bufLen);

/*
 * Append one path component to the NUL-terminated text in `buf` (of `bufLen` bytes), with exactly
 * one "/" between them; to an empty buffer the component is copied as it is. Returns a pointer to
 * the terminating NUL, or `buf + bufLen` if the result does not fit with its terminator; the buffer
 * then holds as much as fits, terminated.
 */
char* znPathAppend(char* buf, size_t bufLen, const char* component);

/*
 * Create a directory and its missing parents with exactly the permission bits `mode`, whatever the
 * umask. Directories that exist keep their mode. OK if the directory exists afterwards, also if it
 * did before; ERROR with errno set (ENOTDIR if a component is not a directory).
 */
STATUS znMkdirParents(const char* path, mode_t mode);

/*
 * Open `path` for reading and writing as an empty regular file with exactly the permission bits
 * `mode`, whatever the umask. An existing regular file is truncated. A symbolic link as the last
 * component is replaced by the new file, never followed. Returns a close-on-exec descriptor, or -1
 * with errno set.
 */
int znFileCreate(const char* path, mode_t mode);

/* The same, with `path` relative to the directory `dirFd`. */
int znFileCreateAt(int dirFd, const char* path, mode_t mode);

/*
 * Open the directory `name` in the directory `dirFd` for use with the *at() calls only (O_PATH: no
 * reading, no fchmod); search permission is enough. A symbolic link fails with ENOTDIR. Returns a
 * close-on-exec descriptor, or -1 with errno set. `name` must be one component: symbolic links
 * before a "/" would be followed.
 */
int znDirOpenAt(int dirFd, const char* name);

/*
 * Set the sticky bit of the directory `path` inside the directory tree `root`, leaving its other
 * mode bits unchanged. Absolute paths and intermediate symbolic links are resolved inside `root`; a
 * symbolic link as the last component is not followed, and no mount point is crossed. OK also if
 * the bit is already set; ERROR with errno set (ENOENT, ENOTDIR, ELOOP, EXDEV).
 */
STATUS znDirMakeSticky(const char* root, const char* path);

/*
 * Open the regular file `path` inside the directory tree of the descriptor `rootFd` for reading.
 * Absolute paths and symbolic links are resolved inside the tree, so that a link in it leads to no
 * file outside; the links of /proc that lead to open files are not followed. Other types of files
 * are not opened: EISDIR for a directory, EINVAL for anything else. Returns a close-on-exec
 * descriptor, or -1 with errno set (ENOENT, ENOTDIR, ELOOP, EACCES).
 */
int znFileOpenInRoot(int rootFd, const char* path);

/*
 * Open the directory `path` inside the directory tree of the descriptor `rootFd` for reading.
 * Absolute paths and symbolic links are resolved inside the tree, as by znFileOpenInRoot. Returns a
 * close-on-exec descriptor, or -1 with errno set (ENOENT, ENOTDIR, ELOOP, EACCES).
 */
int znDirOpenInRoot(int rootFd, const char* path);

/*
 * Open the regular file `name` in the directory `dirFd` for reading. A symbolic link is not
 * followed, and other types of files are not opened, so that this has no side effects: ELOOP for a
 * link, EISDIR for a directory, EINVAL for anything else. `name` must be one component: symbolic
 * links before a "/" would be followed. Returns a close-on-exec descriptor, or -1 with errno set.
 */
int znFileOpenAt(int dirFd, const char* name);

/*
 * Whether something is mounted on the entry `name` of the directory `dirFd`, also in the mount
 * namespace of another process: replacing or removing such an entry would detach the mount. A
 * symbolic link is not followed. 1 or 0 (also if there is no such entry), -1 with errno set.
 */
int znMountedAt(int dirFd, const char* name);

/*
 * Atomically exchange the names of two directories of one file system, so that both names always
 * refer to a complete tree. If the file system does not support this, `b` does not exist for a
 * moment instead. OK, or ERROR with errno set and both names unchanged.
 */
STATUS znDirExchange(const char* a, const char* b);

/*
 * Write all pending changes of the file system that contains the directory `path` to disk, and wait
 * for completion. OK, or ERROR with the error of a failed write.
 */
STATUS znFsSync(const char* path);

/* Write the entries of the directory `path` (creations, renames, removals) to disk. */
STATUS znDirSync(const char* path);

/*
 * Write to `path`, truncated to `size` bytes (64 are enough), a path through which this process can
 * reopen the file behind the descriptor `fd`, even if the file was renamed. Never fails.
 */
void znDescriptorPath(int fd, char* path, size_t size);

/* The C library's text for an error number, truncated to `bufLen` bytes. Never fails. */
void znErrorText(int errorNumber, char* buf, size_t bufLen);

#ifdef __cplusplus
}
#endif
#endif
