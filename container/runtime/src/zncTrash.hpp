// zncTrash.hpp - deletes large directories in a background thread: they are renamed into the trash,
// so that the daemon need not wait.
//
// The trash is the directory ".trash" of the storage base, beside the areas: on the same file
// system as a container's directory, and under no name that a container can have. It is there only
// while something is in it. What a dead process left there is deleted by the next process that
// empties the trash.
//
// Used by the container registry and by zncd. One task at most empties the trash, at low priority;
// it works on paths that only root can reach and shares nothing with the caller but two numbers.
#ifndef ZNCTRASH_HPP
#define ZNCTRASH_HPP

#include "zncontainer.h"

namespace znc {

// Whether the tree can be deleted quickly (few entries, little data). False also on errors.
bool is_small_tree(const char* dir);

// Renames `path`, which lies below an area of the storage base, into the trash. ERROR with errno
// set and nothing changed if that is not possible (EXDEV, EROFS, ENOENT).
STATUS trash_take(const char* path);

// Begins to empty the trash unless that is going on already. Does not wait. Keeps errno.
void trash_empty();

// As trash_empty() if the last time there were no descriptors or no memory to delete everything;
// otherwise nothing.
void trash_retry();

// Waits up to `milliseconds` until the trash is empty or no thread empties it. False on timeout.
bool trash_settled(int milliseconds);

} // namespace znc

#endif
