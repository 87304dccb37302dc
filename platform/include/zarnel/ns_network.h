/*
 * ns_network.h - connecting the network of a namespace with the host's by a user-mode program.
 *
 * The program runs outside the namespace, as user and group 65534, with no right to gain others and
 * with three capabilities: SYS_ADMIN to join the network of the namespace, NET_ADMIN to configure
 * it, NET_BIND_SERVICE to serve ports below 1024. It ends with the namespace.
 */
#ifndef ZARNEL_NS_NETWORK_H
#define ZARNEL_NS_NETWORK_H

#include <stddef.h>

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Paths for the program's arguments: the network namespace, and the file to write to (its process
 * id, for example) when the network works. */
#define ZNNS_NET_NAMESPACE "/proc/self/fd/3"
#define ZNNS_NET_READY "/proc/self/fd/4"

/*
 * Start `program`, an absolute path, with the NULL-terminated `args` (args[0] is its name), to
 * connect the network of the namespace `ns`. Returns when it reports that the network works, after
 * 10 seconds at most.
 *
 * Another process remains beside the program, with no descriptor of the caller but `end`. It kills
 * the program when the namespace ends or when `end`, the reading end of a FIFO or pipe, becomes
 * readable; then it closes `end` and exits. The program cannot outlive that process.
 *
 * ERROR, without a program left, with ESRCH (no such namespace), EINVAL (the network of the
 * namespace is the caller's own), EIO (the program failed) or the error of the failing call. What
 * the program has written to its standard error is then in `problem` (`size` bytes), which may be
 * "".
 */
STATUS znnsNetConnect(nsid_t ns, const char* program, const char* const* args, int end,
                      char* problem, size_t size);

#ifdef __cplusplus
}
#endif
#endif
