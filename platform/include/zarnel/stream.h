/*
 * stream.h - passing bytes on between descriptors without waiting for either side, and without
 * changing what the descriptors share with other processes.
 */
#ifndef ZARNEL_STREAM_H
#define ZARNEL_STREAM_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Move up to `most` bytes from the pipe `from` to `to`, a pipe or a regular file, inside the
 * kernel. Never waits for bytes, nor for room in a pipe. The number of bytes moved; 0 at the end
 * of the pipe; -1 with EAGAIN (nothing to move, or no room), EPIPE and the like from writing, or
 * ENOTSUP: not between these two, copy instead.
 */
ssize_t znStreamMove(int from, int to, size_t most);

/*
 * A descriptor of its own for the same terminal or pipe, with the same access, that does not
 * wait: O_NONBLOCK on the descriptor itself would hold for everyone who shares it. Closed on exec.
 * -1 with the task error number set: EINVAL for what is neither terminal nor pipe, ENXIO for the
 * writing side of a pipe that nobody reads.
 */
int znStreamReopen(int fd);

#ifdef __cplusplus
}
#endif
#endif
