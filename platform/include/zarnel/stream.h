/*
 * stream.h - moving bytes between descriptors without waiting for either side, and without changing
 * the open file descriptions, which other processes may share.
 */
#ifndef ZARNEL_STREAM_H
#define ZARNEL_STREAM_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Move up to `most` bytes from the pipe `from` to `to`, a pipe or a regular file, inside the
 * kernel. Waits neither for data nor for room in a pipe. Returns the number of bytes moved, 0 at
 * the end of the pipe, or -1 with EAGAIN (no data, or no room), EPIPE or another write error, or
 * ENOTSUP (not possible between these two; copy instead).
 */
ssize_t znStreamMove(int from, int to, size_t most);

/*
 * Open the same terminal or pipe again, with the same access mode and O_NONBLOCK, which on `fd`
 * itself would affect all processes that share it. The new descriptor is close-on-exec. -1 with
 * errno set: EINVAL if `fd` is neither a terminal nor a pipe, ENXIO for the write end of a pipe
 * that has no reader.
 */
int znStreamReopen(int fd);

#ifdef __cplusplus
}
#endif
#endif
