// ns_record.hpp - what is written down about each rooted namespace, so that other processes can
// join it by its id and a new owner can clear what a dead one left: one file per namespace in the
// runtime directory.
//
// Used by the namespace service, the spawner and the overlay devices. A record names its keeper by
// process id and start time, so that it never leads to another process of the same id.
#ifndef ZN_NS_RECORD_HPP
#define ZN_NS_RECORD_HPP

#include "base/owned.hpp"
#include "zarnel/types.h"

namespace zn {

inline constexpr std::size_t kRootPathMax = 1024;

// How far somebody is who was told to enter the namespace.
enum class Entry : char {
    kAwaited = 'a',
    kEntering = 'e', // is spawning at this moment
    kOver = 'o'      // has entered, or failed to
};

// What spawned programs may do there that others may not.
enum class Grant : char { kNone = '-', kUrgent = 'u' };

struct NsRecord {
    pid_t keeper;
    unsigned long long startTime; // of the keeper, in clock ticks since boot
    Grant grant = Grant::kNone;
    Entry entry = Entry::kOver;
    char root[kRootPathMax];
};

// The start time of a process, 0 with errno set when it is gone.
unsigned long long process_start_time(pid_t pid);

// 0, or -1 with errno set (EEXIST: the id is taken); there is no half-written record then.
int ns_record_write(nsid_t ns, const NsRecord& record);

// Removes what writers that were killed left. Nobody may be writing a record.
void ns_record_clear_unfinished();

int ns_record_read(nsid_t ns, NsRecord& record);
void ns_record_remove(nsid_t ns);

// Change one value of a record in place. 0, or -1 with errno set.
int ns_record_mark(nsid_t ns, Entry entry);
int ns_record_mark(nsid_t ns, Grant grant);

// A descriptor for the keeper of a record; invalid with errno set, ESRCH when it is gone.
znc::UniqueFd ns_record_keeper(const NsRecord& record);

// Whether reading a record or finding its keeper failed because there is none or it was never
// complete, rather than for want of something.
bool ns_record_is_void(int error);

// Calls `visit(ns, context)` for every record. False with errno set when they cannot be listed.
bool ns_record_each(void (*visit)(nsid_t ns, void* context), void* context);

// Whether a living namespace of any process has this root; yes if that cannot be told.
bool ns_record_rooted_on(const char* root);

} // namespace zn

#endif
