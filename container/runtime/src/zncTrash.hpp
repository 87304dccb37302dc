// zncTrash.hpp - large directories that are deleted later, by a task of its own: the directory is
// renamed into the trash, which is one rename, and the daemon goes on serving.
//
// The trash is the directory ".trash" of the storage base, beside the areas: on the same file
// system as a container's directory, and under no name that a container can have. It is there only
// while something is in it. What a process that ended left in it goes with the next process that
// empties it.
//
// Used by the container registry and by zncd. One task at most empties the trash, at low priority;
// it works on paths that only root can reach and shares nothing with the caller but two numbers.
#ifndef ZNCTRASH_HPP
#define ZNCTRASH_HPP

#include "zncontainer.h"

namespace znc {

// Whether deleting this tree takes next to no time: few entries, little data. False also when that
// cannot be told.
bool is_small_tree(const char* dir);

// Renames `path`, which lies below an area of the storage base, into the trash. ERROR with errno
// set and nothing changed when that cannot be (EXDEV: another file system; EROFS; ENOENT).
STATUS trash_take(const char* path);

// Begins to empty the trash unless that is going on already. Does not wait. Keeps errno.
void trash_empty();

// True once the trash is empty or nobody empties it, waiting that long for it.
bool trash_settled(int milliseconds);

} // namespace znc

#endif
