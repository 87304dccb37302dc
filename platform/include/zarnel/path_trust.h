/*
 * path_trust.h - whether other users can replace or modify what a path leads to. To be checked
 * before a privileged process trusts, or deletes, what is stored there.
 *
 * Trusted owners are root and the effective user of the process. Every directory on the path, from
 * "/" down, must belong to a trusted owner and not be writable by others. A sticky directory such
 * as /tmp may be writable by others if the entry used in it belongs to a trusted owner. The last
 * component must belong to a trusted owner and must not be writable by others at all. A symbolic
 * link is checked as an entry of its directory, then its target is checked. Group write permission
 * counts as writable by others unless the group is root's or that of the process and the file has
 * no access control list.
 *
 * In a user namespace, the owners of files of users that are not mapped are not known: root of the
 * host may be one of them. Directories of such owners are accepted above the last component, under
 * the same rules otherwise, but neither as an entry of a sticky directory, nor as the last
 * component, nor are their symbolic links: what a path leads to then belongs to this user or to
 * root of the namespace, whoever owns the directories above it.
 *
 * A component that does not exist is not an error. After creating it, check again.
 */
#ifndef ZARNEL_PATH_TRUST_H
#define ZARNEL_PATH_TRUST_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct znPathTrust {
    BOOL exists;      /* the whole path exists */
    char fault[1024]; /* "", or what is wrong and where, in English; may be truncated */
} znPathTrust;

/*
 * OK if no other user can change what `path` refers to or contains. ERROR with EPERM if another
 * user can, or with the error that prevented the check (ENOTDIR, ELOOP, ENAMETOOLONG, EACCES;
 * EINVAL for an empty path). A relative path is resolved from the working directory, whose own path
 * is checked too. `trust` may be NULL.
 */
STATUS znPathTrusted(const char* path, znPathTrust* trust);

#ifdef __cplusplus
}
#endif
#endif
