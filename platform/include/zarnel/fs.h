/*
 * fs.h - paths, directories, the environment: what the kernel's user-mode library adds
 * to the POSIX file functions. No call keeps state; all may run in any task.
 */
#ifndef ZARNEL_FS_H
#define ZARNEL_FS_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The device that swallows what is written to it. */
#define ZN_NULL_DEVICE "/dev/null"

/*
 * Copy the environment variable `name` into `buf`. Returns the value's length, or -1 (task
 * error number unchanged) when the variable is unset or its value and terminator do not
 * fit in `bufLen` bytes; `buf` is then untouched.
 */
ssize_t znEnvGet(const char* name, char* buf, size_t bufLen);

/*
 * Append one path component to the text in `buf` (NUL-terminated, in `bufLen` bytes), with
 * exactly one "/" between them; an empty buffer takes the component as it is. Returns the
 * end of the text (its NUL), or `buf + bufLen` when the result and its terminator do not
 * fit; the buffer then holds as much as fitted, terminated.
 */
char* znPathAppend(char* buf, size_t bufLen, const char* component);

/*
 * Make a directory and its missing parents with `mode`, whatever the umask says about the
 * directories made here. OK if the directory is there afterwards, also when it was before;
 * ERROR with the task error number set (ENOTDIR when a file is in the way).
 */
STATUS znMkdirParents(const char* path, mode_t mode);

/*
 * Open `path` for reading and writing as a new, empty regular file with exactly the
 * permission bits `mode`, whatever the umask. An existing regular file is truncated; a
 * symbolic link at the final name is replaced by the new file, never followed. Returns a
 * descriptor closed on exec, or -1 with the task error number set.
 */
int znFileCreate(const char* path, mode_t mode);

/* The same with `path` taken from the directory `dirFd`. */
int znFileCreateAt(int dirFd, const char* path, mode_t mode);

/*
 * Open the directory `name` in the directory `dirFd` as a starting point for the ...at calls and
 * nothing else (no reading, no fchmod); a directory that may only be searched will do. A symbolic
 * link is no directory: -1 with ENOTDIR. Otherwise a descriptor closed on exec, or -1 with the task
 * error number set. `name` is one component: those before a "/" would be followed.
 */
int znDirOpenAt(int dirFd, const char* name);

/*
 * Set the sticky bit of the directory `path` inside the directory tree `root`: its other permission
 * bits stay. Absolute paths and symbolic links on the way are taken inside `root`, one at the end
 * is not followed, and nothing behind a mount point is reached. OK also when the bit is set
 * already; ERROR with the task error number set (ENOENT, ENOTDIR, ELOOP, EXDEV).
 */
STATUS znDirMakeSticky(const char* root, const char* path);

/*
 * Let two directories of one file system change names in one step: whoever looks finds a whole
 * tree under either name. Where the file system cannot do that, `b` has no name for a moment
 * instead. OK, or ERROR with the task error number set and both as they were.
 */
STATUS znDirExchange(const char* a, const char* b);

/*
 * Have everything on disk that was written to the file system of the directory `path`.
 * Blocks until it is. OK, or ERROR with the number of a write that failed.
 */
STATUS znFsSync(const char* path);

/* Have the names in the directory `path` on disk: what was made, renamed, removed in it. */
STATUS znDirSync(const char* path);

/*
 * Write a path under which this process can open the file behind the descriptor `fd` anew, whatever
 * name the file has by then, to `path`, cut to `size` bytes (64 are enough). Never fails.
 */
void znDescriptorPath(int fd, char* path, size_t size);

/* The text for an error number, as the C library has it, cut to `bufLen` bytes. Never fails. */
void znErrorText(int errorNumber, char* buf, size_t bufLen);

#ifdef __cplusplus
}
#endif
#endif
