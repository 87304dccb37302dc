// msgq_probe.hpp - the name of the queue that is made to see whether the limits allow one: the
// maker's process id and a number. Used where it is made and where those of dead processes go.
#ifndef ZN_MSGQ_PROBE_HPP
#define ZN_MSGQ_PROBE_HPP

#define ZN_MSG_Q_PROBE_FORMAT "/zn-probe-%ld-%lx"

#endif
