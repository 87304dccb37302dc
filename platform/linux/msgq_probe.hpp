// msgq_probe.hpp - the name of the temporary queue that is created to check the limits: the
// creator's process id and a number. Shared by the code that creates it and the code that removes
// those of dead processes.
#ifndef ZN_MSGQ_PROBE_HPP
#define ZN_MSGQ_PROBE_HPP

#define ZN_MSG_Q_PROBE_FORMAT "/zn-probe-%ld-%lx"

#endif
