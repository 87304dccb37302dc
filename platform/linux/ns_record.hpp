// ns_record.hpp - records of namespaces that have a root, so that other processes can join them by
// id and a new owner can clean up after one that died: one file per namespace in the runtime
// directory.
//
// Used by the namespace service, the spawner and the overlay devices. A record identifies the
// keeper by process id and start time, so that a reused process id is not mistaken for it.
#ifndef ZN_NS_RECORD_HPP
#define ZN_NS_RECORD_HPP

#include "base/owned.hpp"
#include "cgroup/cgroup.hpp"
#include "zarnel/types.h"

#include <span>

namespace zn {

inline constexpr std::size_t kRootPathMax = 1024;
inline constexpr std::size_t kNameMax = 256;

// The progress of a client that is expected to spawn into the namespace.
enum class Entry : char {
    kAwaited = 'a',
    kEntering = 'e', // the spawn is in progress
    kOver = 'o'      // the spawn has succeeded or failed
};

// Extra permissions of programs spawned into the namespace.
enum class Grant : char { kNone = '-', kUrgent = 'u' };

struct NsRecord {
    pid_t keeper;
    unsigned long long startTime; // of the keeper, in clock ticks since boot
    Grant grant = Grant::kNone;
    Entry entry = Entry::kOver;
    char root[kRootPathMax];
    char name[kNameMax] = {};        // of the container
    char group[kCgroupPathMax] = {}; // its control group; "": none
    pid_t holder = 0;                // a process in its user namespace; 0: it has none
    unsigned long long holderStartTime = 0;
};

// The start time of a process; 0 with errno set if it does not exist.
unsigned long long process_start_time(pid_t pid);

// Opens a pidfd of the process `pid` that started at that time; invalid with errno set, ESRCH if it
// has ended.
znc::UniqueFd process_recorded(pid_t pid, unsigned long long startTime);

// Creates a record atomically, with the confinement of programs (helper/wire.hpp). 0, or -1 with
// errno set (EEXIST: the id is in use) and no record.
int ns_record_write(nsid_t ns, const NsRecord& record, std::span<const char> confinement = {});

// Opens the record, whose confinement the spawner reads; invalid with errno set.
znc::UniqueFd ns_record_open(nsid_t ns);

// Removes incomplete files of writers that were killed. No record may be written at the same time.
void ns_record_clear_unfinished();

int ns_record_read(nsid_t ns, NsRecord& record);
// False if the record still exists.
bool ns_record_remove(nsid_t ns);

// Changes one value of a record in place. 0, or -1 with errno set.
int ns_record_mark(nsid_t ns, Entry entry);
int ns_record_mark(nsid_t ns, Grant grant);

// Opens a pidfd of the keeper of a record; invalid with errno set, ESRCH if the keeper has ended.
znc::UniqueFd ns_record_keeper(const NsRecord& record);

// Reads the record of a namespace that exists and opens a pidfd of its keeper; invalid with errno
// set, ESRCH if the namespace does not exist or has ended.
znc::UniqueFd ns_record_live(nsid_t ns, NsRecord& record);

// Opens a pidfd of the process in the user namespace, as ns_record_keeper does.
znc::UniqueFd ns_record_holder(const NsRecord& record);

// Whether `error`, from reading a record or opening its keeper, means that the record does not
// exist or is invalid or that the keeper has ended, as opposed to a lack of resources.
bool ns_record_is_void(int error);

// Calls `visit(ns, context)` for every record. False with errno set if they cannot be listed.
bool ns_record_each(void (*visit)(nsid_t ns, void* context), void* context);

// Whether a live namespace of any process has this root; true also if that cannot be determined.
bool ns_record_rooted_on(const char* root);

} // namespace zn

#endif
