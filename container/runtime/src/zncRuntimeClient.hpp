// zncRuntimeClient.hpp - the file-private operations of the client's side of a call, under their
// own names for the tests. Nothing else calls them; the call itself is public (zncprotocol.h).
#ifndef ZNCRUNTIMECLIENT_HPP
#define ZNCRUNTIMECLIENT_HPP

#include "zncRuntimeCSLib.hpp"

#include <atomic>
#include <cstdint>

// Adds one; returns the value before.
std::uint64_t znAtomic64Inc(std::atomic<std::uint64_t>* target);

// One whole reply, each piece waited for up to `timeout` ticks. The buffer ends one byte behind the
// data. When a later piece does not come, the rest of the data is zeroes. Null when no reply comes,
// when memory is short, or for what cannot be a reply: no whole header, or 64 KiB of data and more.
znc::MallocPtr<zncMessage> zncMessageRecv(MSG_Q_ID handle, int timeout);

// Print the progress texts that wait in a queue, each as "text.\n".
void zncMessagesPrint(MSG_Q_ID clientInfoQ);

#endif
