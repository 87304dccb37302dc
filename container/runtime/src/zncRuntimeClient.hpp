// zncRuntimeClient.hpp - internal functions of zncRuntimeClient.cpp, declared for the unit tests
// only. The call itself is public (zncprotocol.h).
#ifndef ZNCRUNTIMECLIENT_HPP
#define ZNCRUNTIMECLIENT_HPP

#include "zncRuntimeCSLib.hpp"

#include <atomic>
#include <cstdint>

// Adds 1 and returns the previous value.
std::uint64_t znAtomic64Inc(std::atomic<std::uint64_t>* target);

// Receives a reply, waiting for each of its messages for up to `timeout` ticks. The buffer has one
// more byte after the data. If a later message does not arrive, the rest of the data is zero. Null
// if no reply arrives, if there is no memory, or if the message cannot be a reply: its header is
// incomplete, or it announces 64 KiB of data or more.
znc::MallocPtr<zncMessage> zncMessageRecv(MSG_Q_ID handle, int timeout);

// Prints the progress texts waiting in a queue, each as "text.\n".
void zncMessagesPrint(MSG_Q_ID clientInfoQ);

#endif
