// ns_recover.cpp - kills the namespaces left by a daemon that died and removes their records.
#include "zarnel/ns.h"

#include "base/owned.hpp"
#include "ns_keep.hpp"
#include "ns_record.hpp"
#include "platform/common/clock.hpp"
#include "system/pidfd.hpp"

#include <cerrno>
#include <csignal>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr std::int64_t kRecoverNs = kNsPerSec; // for all of them together

void kill_recorded(nsid_t id, void* /*context*/)
{
    if (namespace_is_own(id)) // adopted
        return;
    NsRecord record = {};
    const UniqueFd keeper = ns_record_read(id, record) == 0 ? ns_record_keeper(record) : UniqueFd();
    if (keeper)
        process_signal(keeper.get(), SIGKILL);
    cgroup_thaw(record.group);
}

struct Recovery {
    std::int64_t deadline;
    int left;
};

// The keeper and all processes in its namespace were killed. If the keeper has not ended at the
// deadline, it waits for a client to reap its program.
void forget_recorded(nsid_t id, void* context)
{
    if (namespace_is_own(id))
        return;
    auto* recovery = static_cast<Recovery*>(context);
    NsRecord record = {};
    const UniqueFd keeper = ns_record_read(id, record) == 0 ? ns_record_keeper(record) : UniqueFd();
    if (!keeper && !ns_record_is_void(errno)) {
        recovery->left++;
        return; // the next recovery tries again
    }
    if (keeper && !process_ended(keeper.get(), milliseconds_until(recovery->deadline)))
        recovery->left++;
    if (record.group[0] != '\0')
        cgroup_remove(record.group);
    static_cast<void>(ns_record_remove(id)); // without its keeper, the record is void
}

} // namespace
} // namespace zn

using namespace zn;

int znnsRecover(void)
{
    // Kill all before waiting for any, so that the waits overlap.
    static_cast<void>(ns_record_each(kill_recorded, nullptr));
    Recovery recovery = {now_ns() + kRecoverNs, 0};
    ns_record_clear_unfinished();
    return ns_record_each(forget_recorded, &recovery) ? recovery.left : recovery.left + 1;
}
