/*
 * watch.h - waits, without polling, until files in a directory change.
 */
#ifndef ZARNEL_WATCH_H
#define ZARNEL_WATCH_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Watch the open directory `dirFd`. Returns a close-on-exec descriptor for poll(), which is
 * readable once a file in the directory has been created, written to or renamed into it since the
 * last call of znWatchClear. -1 with errno set: EMFILE if the user has too many watches already.
 */
int znWatchOpen(int dirFd);

/* Forget the changes so far. To be called before the files are read. */
void znWatchClear(int watchFd);

#ifdef __cplusplus
}
#endif
#endif
