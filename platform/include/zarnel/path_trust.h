/*
 * path_trust.h - whether other users can get at a path: for whoever keeps something there that
 * a privileged process believes, or deletes.
 *
 * Trusted owners are root and the process's effective user. Every directory on the way, from
 * "/" down, must belong to one of them and not be writable by others; one that is writable but
 * sticky (/tmp) will do for an entry that belongs to one of them. The end of the path must
 * belong to one of them and not be writable by others at all. A symbolic link is judged by
 * the directory it stands in, and then by its target. Write permission of a group counts
 * unless the group is root's or the process's own and no access list goes beyond it.
 *
 * What does not exist yet is no fault. Whoever then makes it asks again afterwards.
 */
#ifndef ZARNEL_PATH_TRUST_H
#define ZARNEL_PATH_TRUST_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct znPathTrust {
    BOOL exists;      /* the whole path is there */
    char fault[1024]; /* "" or what is wrong and where, for a person; may be cut */
} znPathTrust;

/*
 * OK if nobody else can change what `path` means or holds. ERROR with EPERM (somebody can), or
 * with the number of what kept it from being looked at (ENOTDIR, ELOOP, ENAMETOOLONG, EACCES,
 * EINVAL for an empty path). A relative path is taken from the working directory, whose own
 * path is judged too. `trust` may be NULL.
 */
STATUS znPathTrusted(const char* path, znPathTrust* trust);

#ifdef __cplusplus
}
#endif
#endif
