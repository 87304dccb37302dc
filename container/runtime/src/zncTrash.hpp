// zncTrash.hpp - deletes large directories in a background thread: they are renamed into the trash,
// so that the daemon need not wait.
//
// The trash is the directory ".trash" of the storage base, beside the areas: on the same file
// system as the containers' directories, and outside of them, so that its name cannot be that of a
// container. It exists only while it is not empty. The contents left by a process that died are
// deleted by the next process that empties the trash.
//
// Used by the container registry and by zncd. At most one thread empties the trash, at low
// priority. It uses only paths that only root can access.
#ifndef ZNCTRASH_HPP
#define ZNCTRASH_HPP

#include "zncontainer.h"

namespace znc {

// Whether the tree can be deleted quickly (few entries, little data). False also on errors.
bool is_small_tree(const char* dir);

// Renames `path`, which lies below an area of the storage base, into the trash. ERROR with errno
// set and nothing changed if that is not possible (EXDEV, EROFS, ENOENT).
STATUS trash_take(const char* path);

// Starts to empty the trash in the background, unless a thread is doing so already. Preserves
// errno.
void trash_empty();

// Calls trash_empty() if the last attempt ran out of descriptors or memory; otherwise does nothing.
void trash_retry();

// Waits up to `milliseconds` until the trash is empty or no thread empties it. False on timeout.
bool trash_settled(int milliseconds);

} // namespace znc

#endif
