// ns_keep.cpp - see zarnel/ns_keep.h. A kept namespace consists of its record (ns_record.hpp), a
// second record with what is needed to adopt it (ns_kept_record.hpp), and the owner's ends of the
// sockets of its keeper and holder in a store (keep_store.hpp), which keep these processes alive.
#include "zarnel/ns_keep.h"

#include "base/failure.hpp"
#include "base/mutex_hold.hpp"
#include "keep_store.hpp"
#include "ns_keep.hpp"
#include "ns_kept_record.hpp"
#include "system/pidfd.hpp"
#include "zarnel/ns.h"

#include <csignal>
#include <pthread.h>

namespace zn {
namespace {

using znc::UniqueFd;

struct KeptEntry {
    nsid_t ns; // kNone: unused
    std::uint64_t keeperSocket;
    std::uint64_t holderSocket;
};
constexpr nsid_t kNone = -1;

struct Keeping {
    bool open = false; // set by znnsKeepOpen: nothing is kept before
    KeepStore store;
    znc::List<KeptEntry> entries;
};

// Protected by the lock.
pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
Keeping g_keeping;

KeptEntry* find_entry(nsid_t ns)
{
    for (KeptEntry& entry : g_keeping.entries)
        if (entry.ns == ns)
            return &entry;
    return nullptr;
}

int add_entry(const KeptEntry& added)
{
    KeptEntry* const unused = find_entry(kNone);
    if (unused == nullptr)
        return g_keeping.entries.append(added) != nullptr ? 0 : ENOMEM;
    *unused = added;
    return 0;
}

int store_links(const NamespaceLinks& links)
{
    int error = g_keeping.store.put(links.keeperSocket.get());
    if (error == 0 && links.holderSocket)
        error = g_keeping.store.put(links.holderSocket.get());
    return error;
}

void drop_links(const KeptEntry& entry)
{
    g_keeping.store.drop(entry.keeperSocket);
    g_keeping.store.drop(entry.holderSocket);
}

int keep(nsid_t ns, const NamespaceLinks& links, const KeptRecord& record)
{
    if (!g_keeping.open)
        return ENOTSUP;
    const KeptEntry entry = {ns, record.keeperSocket, record.holderSocket};
    const bool is_new = find_entry(ns) == nullptr;
    int error = store_links(links);
    if (error == 0)
        error = kept_record_write(ns, record);
    if (error == 0 && is_new)
        error = add_entry(entry);
    if (error != 0 && is_new) {
        drop_links(entry);
        kept_record_remove(ns);
    }
    return error;
}

// ---------------------------------------------------------------- adopting

struct Adoption {
    BOOL (*accept)(const znKept* kept, void* context);
    void (*refused)(const char* name, nsid_t ns, const char* reason, void* context);
    void* context;
    int adopted;
};

bool is_same(const KeptProcess& kept, pid_t pid, unsigned long long startTime)
{
    return kept.pid == pid && kept.startTime == startTime;
}

int enter(const KeptEntry& entry)
{
    const znc::MutexHold lock(g_lock);
    return add_entry(entry);
}

UniqueFd take_stored(std::uint64_t cookie)
{
    const znc::MutexHold lock(g_lock);
    return g_keeping.store.take(cookie);
}

// Opens the processes of the records and takes their sockets out of the store. Null, or why the
// namespace cannot be adopted.
const char* open_links(const KeptRecord& kept, const NsRecord& record, NamespaceLinks& links)
{
    if (!is_same(kept.keeper, record.keeper, record.startTime) ||
        !is_same(kept.holder, record.holder, record.holderStartTime))
        return "its records name different processes";
    UniqueFd keeper = ns_record_keeper(record);
    if (!keeper)
        return errno == ESRCH ? nullptr : "its keeper cannot be examined";
    const KeeperIs found = keeper_examine(kept, record.keeper);
    if (found == KeeperIs::kEnding || process_ended(keeper.get(), 0))
        return nullptr;
    if (found == KeeperIs::kOther)
        return "its keeper is another process";
    links.keeperSocket = take_stored(kept.keeperSocket);
    if (!links.keeperSocket)
        return "the connection to its keeper was not stored";
    if (record.holder > 0) {
        links.holderProcess = ns_record_holder(record);
        links.holderSocket = take_stored(kept.holderSocket);
        if (!links.holderProcess || !links.holderSocket || !runs_helper(record.holder))
            return "the process that holds its user namespace has ended";
        links.holder = record.holder;
    }
    // If the keeper still runs now, its process id was not reused while it was examined.
    if (process_ended(keeper.get(), 0)) {
        links = NamespaceLinks();
        return nullptr;
    }
    links.keeper = record.keeper;
    links.keeperProcess = std::move(keeper);
    return nullptr;
}

// Null, or why the namespace cannot be adopted.
const char* adopt(nsid_t ns, const KeptRecord& kept, const NsRecord& record, Adoption& adoption)
{
    NamespaceLinks links;
    if (const char* reason = open_links(kept, record, links); reason != nullptr)
        return reason;
    const bool live = static_cast<bool>(links.keeperProcess);
    if (namespace_adopt(ns, record, std::move(links), kept.mounts) != 0 ||
        enter({ns, kept.keeperSocket, kept.holderSocket}) != 0)
        return "there is not enough memory, or its list of mounts is damaged";
    const bool runs =
        kept.program.pid > 0 && process_recorded(kept.program.pid, kept.program.startTime);
    const znKept given = {ns, live ? TRUE : FALSE, runs ? kept.program.pid : 0, kept.note.data(),
                          kept.note.size()};
    return adoption.accept(&given, adoption.context) != FALSE
               ? nullptr
               : "the stored description of the container is not valid";
}

const char* reason_of(int error)
{
    return error == EPROTO   ? "it belongs to an incompatible version"
           : error == EINVAL ? "its record is damaged"
                             : "its record cannot be read";
}

void adopt_recorded(int ns, void* context)
{
    auto& adoption = *static_cast<Adoption*>(context);
    KeptText text;
    KeptRecord kept;
    const auto record = znc::malloc_zeroed<NsRecord>();
    const int error = kept_record_read(ns, text, kept);
    const bool readable = record && ns_record_read(ns, *record) == 0;
    const char* const reason = error != 0  ? reason_of(error)
                               : !readable ? "the record of its namespace is damaged or missing"
                                           : adopt(ns, kept, *record, adoption);
    if (reason == nullptr) {
        adoption.adopted++;
        return;
    }
    adoption.refused(readable ? record->name : "", ns, reason, adoption.context);
    if (kept.keeper.pid > 0)
        if (const UniqueFd keeper = process_recorded(kept.keeper.pid, kept.keeper.startTime))
            process_signal(keeper.get(), SIGKILL);
    if (namespace_is_own(ns))
        znnsDelete(ns);
    kept_record_remove(ns);
}

void end_recorded(int ns, void* /*context*/)
{
    KeptText text;
    KeptRecord kept;
    if (kept_record_read(ns, text, kept) == 0)
        if (const UniqueFd keeper = process_recorded(kept.keeper.pid, kept.keeper.startTime))
            process_signal(keeper.get(), SIGKILL);
    kept_record_remove(ns);
}

} // namespace

void keep_forget(nsid_t ns)
{
    const znc::ErrnoSaver keep;
    const znc::MutexHold lock(g_lock);
    KeptEntry* const entry = find_entry(ns);
    if (entry == nullptr)
        return;
    kept_record_remove(ns);
    drop_links(*entry);
    entry->ns = kNone;
}

bool keep_has(nsid_t ns)
{
    const znc::MutexHold lock(g_lock);
    return find_entry(ns) != nullptr;
}

void keep_check()
{
    const znc::ErrnoSaver keep;
    znc::List<nsid_t> kept;
    {
        const znc::MutexHold lock(g_lock);
        if (!g_keeping.open || !g_keeping.store.is_lost() || g_keeping.store.reopen() != 0)
            return;
        for (const KeptEntry& entry : g_keeping.entries)
            if (entry.ns != kNone)
                kept.append(entry.ns);
    }
    for (const nsid_t ns : kept) {
        NamespaceLinks links;
        znc::List<char> mounts;
        if (namespace_links(ns, links, mounts) != 0)
            continue;
        const znc::MutexHold lock(g_lock);
        store_links(links);
    }
}

int keep_leave()
{
    const znc::MutexHold lock(g_lock);
    int kept = 0;
    if (!g_keeping.open)
        return kept;
    for (const KeptEntry& entry : g_keeping.entries)
        kept += entry.ns != kNone ? 1 : 0;
    if (kept == 0) {
        g_keeping.store.end();
        kept_clear_unfinished();
    }
    return kept;
}

} // namespace zn

using namespace zn;

STATUS znnsKeepOpen(const znKeepManager* manager)
{
    const znc::MutexHold lock(g_lock);
    Keeping keeping;
    int error = keeping.store.find(manager);
    if (error == 0)
        error = keeping.store.prepare();
    if (error != 0)
        return znc::fail(error);
    keeping.open = true;
    g_keeping = std::move(keeping);
    return OK;
}

STATUS znnsKeep(nsid_t ns, pid_t program, const void* note, size_t size)
{
    keep_check();
    NamespaceLinks links;
    znc::List<char> mounts;
    KeptRecord record;
    int error = namespace_links(ns, links, mounts);
    if (error == 0)
        error = kept_record_fill(record, links, program);
    if (error != 0)
        return znc::fail(error);
    record.mounts = {mounts.begin(), mounts.size()};
    record.note = {static_cast<const char*>(note), size};
    const znc::MutexHold lock(g_lock);
    error = keep(ns, links, record);
    return error == 0 ? OK : znc::fail(error);
}

int znnsAdopt(BOOL (*accept)(const znKept* kept, void* context),
              void (*refused)(const char* name, nsid_t ns, const char* reason, void* context),
              void* context)
{
    Adoption adoption = {accept, refused, context, 0};
    if (!g_keeping.open)
        return 0;
    if (kept_directory_trusted())
        static_cast<void>(kept_each(adopt_recorded, &adoption));
    else if (errno != ENOENT)
        refused("", kNone, "other users can change the directory of the records", context);
    kept_clear_unfinished();
    const znc::MutexHold lock(g_lock);
    static_cast<void>(g_keeping.store.drop_rest());
    return adoption.adopted;
}

BOOL znnsKeptEnd(const znKeepManager* manager)
{
    const znc::MutexHold lock(g_lock);
    KeepStore store;
    const bool trusted = kept_directory_trusted();
    static_cast<void>(store.find(manager));
    const bool any = store.drop_rest();
    store.end();
    if (trusted)
        static_cast<void>(kept_each(end_recorded, nullptr));
    kept_clear_unfinished();
    return any || trusted ? TRUE : FALSE;
}
