// ns_recover.cpp - kills the namespaces left by a daemon that died and removes their records.
#include "zarnel/ns.h"

#include "base/owned.hpp"
#include "clock.hpp"
#include "ns_record.hpp"
#include "pidfd.hpp"

#include <cerrno>
#include <csignal>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr std::int64_t kRecoverNs = kNsPerSec; // time limit for all of them together to end

void kill_recorded(nsid_t id, void* /*context*/)
{
    NsRecord record;
    const UniqueFd keeper = ns_record_read(id, record) == 0 ? ns_record_keeper(record) : UniqueFd();
    if (keeper)
        process_signal(keeper.get(), SIGKILL);
}

struct Recovery {
    std::int64_t deadline;
    int left;
};

// The keeper was killed, and the kernel kills every process in its namespace with it. It does not
// end until a client has reaped the program it started there; the record is removed without waiting
// for that any longer than the deadline.
void forget_recorded(nsid_t id, void* context)
{
    auto* recovery = static_cast<Recovery*>(context);
    NsRecord record;
    const UniqueFd keeper = ns_record_read(id, record) == 0 ? ns_record_keeper(record) : UniqueFd();
    if (!keeper && !ns_record_is_void(errno)) {
        recovery->left++;
        return; // the record stays for the next recovery
    }
    if (keeper && !process_ended(keeper.get(), milliseconds_until(recovery->deadline)))
        recovery->left++;
    ns_record_remove(id);
}

} // namespace
} // namespace zn

using namespace zn;

int znnsRecover(void)
{
    // Kill all of them before waiting, so that they end in parallel.
    static_cast<void>(ns_record_each(kill_recorded, nullptr));
    Recovery recovery = {now_ns() + kRecoverNs, 0};
    ns_record_clear_unfinished();
    return ns_record_each(forget_recorded, &recovery) ? recovery.left : recovery.left + 1;
}
