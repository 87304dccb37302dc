#include "ns_entry.hpp"

#include "ns_record.hpp"
#include "system/pidfd.hpp"

namespace zn {
namespace {

constexpr std::int64_t kAwaitedNs = 2 * kNsPerSec;

bool has_ended(pid_t pid)
{
    const znc::UniqueFd process = process_open(pid);
    return process ? process_ended(process.get(), 0) : errno == ESRCH;
}

} // namespace

int AwaitedEntry::begin(nsid_t ns, pid_t caller)
{
    if (ns_record_mark(ns, Entry::kAwaited) != 0)
        return -1;
    until_ = now_ns() + kAwaitedNs;
    // A process id from another PID namespace may not exist here.
    caller_ = caller > 0 && process_open(caller) ? caller : 0;
    return 0;
}

// If no spawn is expected or in progress, the first query finds that in the record.
void AwaitedEntry::resume()
{
    until_ = now_ns() + kAwaitedNs;
    caller_ = 0;
}

bool AwaitedEntry::is_open(nsid_t ns)
{
    if (until_ == 0)
        return false;
    // Check the caller before reading the record: if the caller has ended, the record is final. If
    // it ended during a spawn (kEntering), a program may still be started.
    const bool gone = caller_ != 0 && has_ended(caller_);
    NsRecord record;
    const bool open =
        now_ns() < until_ && ns_record_read(ns, record) == 0 &&
        (record.entry == Entry::kEntering || (record.entry == Entry::kAwaited && !gone));
    if (!open)
        until_ = 0;
    return open;
}

} // namespace zn
