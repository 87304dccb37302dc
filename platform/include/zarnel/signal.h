/*
 * signal.h - signal numbers. The library speaks the platform's own numbers (30 is USR1 there);
 * the host's are used only below this line.
 */
#ifndef ZARNEL_SIGNAL_H
#define ZARNEL_SIGNAL_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The host's number for a platform signal, 0 for 0, or -1 with EINVAL: a number that is not
 * in the platform's table, or a signal the host does not have (EMT, FMT, CNCL, RES1-7, EVTS, EVTD).
 */
int znSignalToHost(int signo);

#ifdef __cplusplus
}
#endif
#endif
