/*
 * signal.h - signal numbers. The library uses the numbers of Zarnel (SIGUSR1 is 30); this function
 * translates them to those of the host.
 */
#ifndef ZARNEL_SIGNAL_H
#define ZARNEL_SIGNAL_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The host's number for a Zarnel signal, 0 for 0, or -1 with EINVAL for an unknown number or a
 * signal that the host does not have (EMT, FMT, CNCL, RES1-7, EVTS, EVTD).
 */
int znSignalToHost(int signo);

#ifdef __cplusplus
}
#endif
#endif
