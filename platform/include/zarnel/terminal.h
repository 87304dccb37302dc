/*
 * terminal.h - the terminal's option word, of which one bit is used here.
 */
#ifndef ZARNEL_TERMINAL_H
#define ZARNEL_TERMINAL_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZN_TERM_OPT_ECHO 0x1 /* typed characters are shown */

/* Read the option word of the terminal on `fd` into `options`. ERROR with ENOTTY if it is none. */
STATUS znTermOptionsGet(int fd, int* options);

/*
 * Set the option word. On Linux only the echo bit has a meaning; every other setting of the
 * terminal stays as it is. ERROR with the task error number set.
 */
STATUS znTermOptionsSet(int fd, int options);

#ifdef __cplusplus
}
#endif
#endif
