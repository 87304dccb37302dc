// starter.cpp - starts spare keepers when its owner asks for them. It is a process of its own
// because it has no memory of the owner: a fork of it can be a keeper without executing the helper
// again, and the owner does not wait while the kernel creates the namespaces.
//
// A spare keeper is a child of the owner. It mounts what is the same in all usual containers, says
// so on its socket, and then waits like any keeper. The owner's end of the socket is never held by
// another process once it was sent, so the spare exits with the owner or when the owner drops it.

#include "helper.hpp"
#include "request.hpp"
#include "sys.hpp"
#include "wire.hpp"

#include <linux/errno.h>
#include <linux/prctl.h>
#include <linux/sched.h>

namespace zn {
namespace {

constexpr long kFamilyUnix = 1;
constexpr long kSocketPackets = 5; // SOCK_SEQPACKET
constexpr long kSocketCloexec = 02000000;

// In the new process: keeps one end of the socket pair and becomes a keeper.
[[noreturn]] void become_spare(int socket)
{
    const long placed = sys::call(__NR_dup3, socket, wire::kKeeperSocket, 0);
    const long closed =
        placed < 0 ? placed : sys::call(__NR_close_range, wire::kKeeperSocket + 1, ~0U, 0);
    if (closed < 0)
        sys::exit_group(1);
    keeper_run_spare();
}

void start_spare()
{
    wire::SpareAnswer answer = {0, -1};
    int pair[2] = {-1, -1};
    const long made =
        sys::call(__NR_socketpair, kFamilyUnix, kSocketPackets | kSocketCloexec, 0, sys::arg(pair));
    const sys::Fd owners(made < 0 ? made : pair[0]);
    const sys::Fd keepers(made < 0 ? made : pair[1]);
    long pid = made;
    if (made == 0)
        pid = sys::call(__NR_clone, static_cast<long>(CLONE_PARENT | wire::kSpareNamespaces));
    if (pid == 0)
        become_spare(keepers.get());
    answer.error = pid < 0 ? static_cast<std::int32_t>(-pid) : 0;
    answer.pid = pid < 0 ? -1 : static_cast<std::int32_t>(pid);
    // If the owner is gone, the next read says so.
    static_cast<void>(
        descriptor_send(wire::kStarterSocket, &answer, sizeof answer, pid < 0 ? -1 : owners.get()));
}

} // namespace

void starter_run()
{
    sys::call(__NR_prctl, PR_SET_DUMPABLE, 0);
    sys::call(__NR_prctl, PR_SET_NAME, sys::arg(wire::kStarterName));
    for (;;) {
        char byte = 0;
        const long n = sys::call(__NR_read, wire::kStarterSocket, sys::arg(&byte), 1);
        if (n == -EINTR)
            continue;
        if (n <= 0)
            sys::exit_group(0);
        start_spare();
    }
}

} // namespace zn
