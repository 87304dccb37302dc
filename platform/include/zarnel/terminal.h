/* terminal.h - terminal options. Only the echo option is used. */
#ifndef ZARNEL_TERMINAL_H
#define ZARNEL_TERMINAL_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZN_TERM_OPT_ECHO 0x1 /* echo typed characters */

/*
 * Read the options of the terminal `fd` into `options`. ERROR with ENOTTY if `fd` is not a
 * terminal.
 */
STATUS znTermOptionsGet(int fd, int* options);

/*
 * Set the options. On Linux only the echo bit has an effect; all other settings of the terminal are
 * left unchanged. ERROR with errno set.
 */
STATUS znTermOptionsSet(int fd, int options);

#ifdef __cplusplus
}
#endif
#endif
