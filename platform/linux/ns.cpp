#include "zarnel/ns.h"

#include "base/failure.hpp"
#include "base/file.hpp"
#include "base/mutex_hold.hpp"
#include "keeper_link.hpp"
#include "ns_entry.hpp"
#include "ns_keep.hpp"
#include "ns_mount.hpp"
#include "ns_record.hpp"
#include "ns_settings.hpp"
#include "ns_spare.hpp"
#include "overlay_device.hpp"
#include "system/pidfd.hpp"
#include "zarnel/ns_keep.h"
#include "zarnel/overlay.h"
#include "zarnel/signal.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/mount.h>
#include <new>
#include <pthread.h>
#include <sys/mount.h>
#include <sys/random.h>
#include <sys/stat.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr int kReapMilliseconds = 20;               // keepers that end later are reaped later
constexpr std::int64_t kEndNs = 2 * kNsPerSec;      // until the programs of one namespace are dead
constexpr std::int64_t kKillAllNs = kNsPerSec;      // until those of all namespaces are dead
constexpr std::int64_t kShutdownNs = 2 * kNsPerSec; // until all keepers have ended
constexpr std::size_t kBuckets = 256;

struct Namespace {
    Namespace* next = nullptr;
    nsid_t id = -1;
    Keeper keeper;
    AwaitedEntry entry;
    bool recorded = false;   // this namespace has written its record
    bool ownsDevice = false; // the root is the container's writable overlay device
    bool sealed = false;
    char root[kRootPathMax] = {};
    NamespaceMounts mounts;
    NamespaceSettings settings;
};

struct DestroyNamespace {
    void operator()(Namespace* ns) const noexcept
    {
        const znc::ErrnoSaver keep;
        ns->~Namespace();
        ::free(ns);
    }
};
using NamespacePtr = std::unique_ptr<Namespace, DestroyNamespace>;

// The namespaces of this process, and those that have been deleted but whose keeper is not reaped
// yet. One lock protects both. It is held during requests to keepers, which have a timeout.
pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
Namespace* g_namespaces[kBuckets] = {}; // hash table by id
Namespace* g_dying = nullptr;
bool g_privileged = false; // configurations may exceed the defaults
bool g_mapped = false;     // each namespace has users of its own
void (*g_refused)(const char* name, const char* reason) = nullptr; // znnsRefusalListenerSet
std::int64_t g_killDeadline =
    0; // deadline for the processes killed by znnsKillAll; 0: it was not called

// The control group can be removed when all processes are dead.
void remove_group(const Namespace& ns)
{
    const znc::ErrnoSaver keep;
    if (ns.settings.group()[0] != '\0')
        cgroup_remove(ns.settings.group());
}

// A record of this id may belong to another owner. A record that cannot be removed is tried again.
void remove_record(Namespace& ns)
{
    if (ns.recorded)
        ns.recorded = !ns_record_remove(ns.id);
}

// Whether nothing is left of a namespace that was deleted.
bool is_gone(Namespace& ns)
{
    remove_record(ns);
    return ns.keeper.reap() && !ns.recorded;
}

void reap_dying()
{
    for (Namespace** at = &g_dying; *at != nullptr;) {
        if (is_gone(**at)) {
            remove_group(**at);
            const NamespacePtr done(*at);
            *at = done->next;
        } else {
            at = &(*at)->next;
        }
    }
}

// Ends the spares, and waits for the end of the namespaces that were deleted. Returns the number of
// those that have not ended.
int settle_dying()
{
    const std::int64_t deadline = now_ns() + kShutdownNs;
    spares_end(deadline);
    int left = 0;
    for (Namespace* ns = g_dying; ns != nullptr; ns = ns->next)
        left += ns->keeper.ended(milliseconds_until(deadline)) ? 0 : 1;
    reap_dying();
    overlay_devices_retry();
    g_killDeadline = 0;
    return left;
}

Namespace** find_link(nsid_t id)
{
    Namespace** at = &g_namespaces[static_cast<std::size_t>(id) % kBuckets];
    while (*at != nullptr && (*at)->id != id)
        at = &(*at)->next;
    return at;
}

Namespace* find(nsid_t id)
{
    Namespace* ns = *find_link(id);
    if (ns == nullptr)
        errno = EINVAL;
    return ns;
}

void tell_fault(const SettingsFault& fault, char* reason, std::size_t size)
{
    if (size != 0 && fault.field[0] != '\0')
        std::snprintf(reason, size, "%s: %s", fault.field, fault.reason);
}

// Also calls the refusal listener.
void tell_refusal(const char* name, const SettingsFault& fault, char* reason, std::size_t size)
{
    tell_fault(fault, reason, size);
    if (g_refused == nullptr || fault.field[0] == '\0')
        return;
    char text[ZNNS_REASON_MAX];
    tell_fault(fault, text, sizeof text);
    g_refused(name, text);
}

// If the keeper is dead (ESRCH), its mounts no longer exist: success.
STATUS undo_result(int error)
{
    return znc::status_of(error == ESRCH ? 0 : error);
}

void release_device(Namespace& ns)
{
    const znc::ErrnoSaver keep;
    if (ns.ownsDevice && overlay_device_detach(ns.root, Detach::kOwn) != 0)
        overlay_device_detach_later(ns.root);
    ns.ownsDevice = false;
}

// Detaches the device of a namespace that could not be created: the caller that created the device
// does not remove it.
void release_unused_device(const char* name)
{
    const znc::ErrnoSaver keep;
    char path[kRootPathMax];
    const int length = std::snprintf(path, sizeof path, "%s/%s", ZN_OVERLAY_DIR, name);
    if (name[0] != '\0' && static_cast<std::size_t>(length) < sizeof path &&
        overlay_device_detach(path, Detach::kAbandoned) != 0)
        overlay_device_detach_later(path);
}

// Removes the namespace at `link` from the list and ends it.
void end_namespace(Namespace** link)
{
    const znc::ErrnoSaver keep;
    NamespacePtr ns(*link);
    *link = ns->next;
    keep_forget(ns->id);
    remove_record(*ns);
    cgroup_thaw(ns->settings.group());
    ns->keeper.kill(g_killDeadline != 0 ? g_killDeadline : now_ns() + kEndNs);
    release_device(*ns);
    if (!ns->keeper.ended(g_killDeadline != 0 ? 0 : kReapMilliseconds) || !is_gone(*ns)) {
        ns->next = g_dying;
        g_dying = ns.release();
    } else {
        remove_group(*ns);
    }
}

// Deleting one of two containers with overlapping groups would kill the processes of the other.
bool group_taken(const char* path)
{
    const auto overlaps = [path](const Namespace* first) {
        for (const Namespace* ns = first; ns != nullptr; ns = ns->next)
            if (const char* group = ns->settings.group();
                group[0] != '\0' && (cgroup_contains(group, path) || cgroup_contains(path, group)))
                return true;
        return false;
    };
    for (const Namespace* bucket : g_namespaces)
        if (overlaps(bucket))
            return true;
    return overlaps(g_dying);
}

// First host id for containers (--userns): above the subordinate ids that distributions assign to
// users.
constexpr std::uint32_t kFirstUser = 0x30000000;
constexpr std::uint32_t kUsersEach = 0x10000;
constexpr std::uint32_t kUserRanges = 0x4000;

bool users_taken(std::uint32_t first)
{
    const auto taken = [first](const Namespace* ns) {
        for (; ns != nullptr; ns = ns->next)
            if (ns->settings.has_host_ids(first, kUsersEach))
                return true;
        return false;
    };
    for (const Namespace* bucket : g_namespaces)
        if (taken(bucket))
            return true;
    return taken(g_dying);
}

// Gives the container users that no other container of this process has. 0 or an error number.
int choose_users(NamespaceSettings& settings)
{
    for (std::uint32_t tries = 0; tries < kUserRanges; tries++) {
        std::uint16_t range = 0;
        if (::getrandom(&range, sizeof range, 0) != sizeof range)
            return errno;
        const std::uint32_t first = kFirstUser + range % kUserRanges * kUsersEach;
        if (!users_taken(first))
            return settings.map_range(first, kUsersEach);
    }
    return EUSERS;
}

nsid_t unused_id()
{
    std::uint32_t id = 0;
    do {
        if (::getrandom(&id, sizeof id, 0) != sizeof id)
            return -1;
        id &= 0x7fffffff;
    } while (*find_link(static_cast<nsid_t>(id)) != nullptr);
    return static_cast<nsid_t>(id);
}

NamespacePtr namespace_new()
{
    void* memory = ::malloc(sizeof(Namespace));
    return NamespacePtr(memory != nullptr ? new (memory) Namespace : nullptr);
}

bool is_own_device(const char* rootPath, const char* name)
{
    constexpr std::size_t prefix = sizeof ZN_OVERLAY_DIR - 1;
    return std::strncmp(rootPath, ZN_OVERLAY_DIR "/", prefix + 1) == 0 &&
           std::strcmp(rootPath + prefix + 1, name) == 0;
}

int write_record(Namespace& ns, const char* name)
{
    auto record = znc::malloc_zeroed<NsRecord>();
    std::size_t size = 0;
    const auto confinement = record ? ns.settings.confinement(size) : nullptr;
    if (!confinement)
        return errno;
    record->grant = Grant::kNone;
    record->entry = Entry::kOver;
    record->keeper = ns.keeper.pid();
    record->startTime = process_start_time(record->keeper);
    if (const UserNamespace& user = ns.settings.user()) {
        record->holder = user.pid();
        record->holderStartTime = process_start_time(record->holder);
    }
    std::memcpy(record->root, ns.root, sizeof record->root);
    std::snprintf(record->name, sizeof record->name, "%s", name);
    std::snprintf(record->group, sizeof record->group, "%s", ns.settings.group());
    if (record->startTime == 0 || ns_record_write(ns.id, *record, {confinement.get(), size}) != 0)
        return errno;
    ns.recorded = true;
    return 0;
}

// The container's own overlay device is mounted again for its user namespace: an overlay cannot be
// id-mapped, but its layers can.
UniqueFd root_tree(const Namespace& ns, const char* rootPath)
{
    const UserNamespace& user = ns.settings.user();
    MountPlan plan;
    plan.attrSet = MOUNT_ATTR_NODEV | MOUNT_ATTR_NOSUID;
    plan.propagation = MS_PRIVATE;
    plan.mapped = static_cast<bool>(user) && !ns.ownsDevice;
    if (user && ns.ownsDevice && overlay_device_map(rootPath, user) != 0)
        return {};
    return detached_tree(rootPath, plan, user);
}

int make_root(Namespace& ns, const char* rootPath, const char* name)
{
    const UniqueFd tree = root_tree(ns, rootPath);
    if (!tree)
        return errno;
    if (!znc::is_directory(tree.get()))
        return ENOTDIR;
    const char* const hostName = ns.settings.host_name(name);
    wire::Request request = {};
    request.op = wire::Op::kRoot;
    request.value = ns.settings.root_bits();
    request.attributes = ns.settings.terminal_group();
    request.textLen = static_cast<std::uint32_t>(std::strlen(hostName) + 1);
    request.textCount = 1;
    const int error = ns.keeper.ask(request, {hostName, request.textLen}, tree.get());
    return error != 0 ? error : write_record(ns, name);
}

bool is_empty(const char* destination)
{
    return destination == nullptr || *destination == '\0';
}

// Whether two processes are in the same PID namespace.
bool same_pid_namespace(pid_t one, pid_t other)
{
    char path[64];
    struct stat a;
    struct stat b;
    std::snprintf(path, sizeof path, "/proc/%d/ns/pid", one);
    if (::stat(path, &a) != 0)
        return false;
    std::snprintf(path, sizeof path, "/proc/%d/ns/pid", other);
    return ::stat(path, &b) == 0 && a.st_ino == b.st_ino && a.st_dev == b.st_dev;
}

UniqueFd copy_of(int descriptor)
{
    return UniqueFd(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
}

} // namespace

int namespace_links(nsid_t id, NamespaceLinks& links, znc::List<char>& mounts)
{
    const znc::MutexHold lock(g_lock);
    const Namespace* ns = find(id);
    if (ns == nullptr || !ns->sealed)
        return EINVAL;
    links.keeper = ns->keeper.pid();
    links.keeperSocket = copy_of(ns->keeper.socket());
    bool copied = static_cast<bool>(links.keeperSocket);
    if (const UserNamespace& user = ns->settings.user()) {
        links.holder = user.pid();
        links.holderSocket = copy_of(user.socket());
        copied = copied && links.holderSocket;
    }
    return copied ? ns->mounts.save(mounts) : errno;
}

int namespace_adopt(nsid_t id, const NsRecord& record, NamespaceLinks links,
                    std::string_view mounts)
{
    const znc::MutexHold lock(g_lock);
    NamespacePtr ns = namespace_new();
    if (!ns || *find_link(id) != nullptr)
        return ns ? EEXIST : ENOMEM;
    ns->id = id;
    ns->recorded = true;
    ns->sealed = true;
    std::memcpy(ns->root, record.root, sizeof ns->root);
    ns->ownsDevice = is_own_device(record.root, record.name);
    ns->entry.resume();
    if (links.keeperProcess)
        ns->keeper.adopt(links.keeper, std::move(links.keeperProcess),
                         std::move(links.keeperSocket));
    int error = ns->mounts.restore(mounts);
    if (error == 0)
        error = ns->settings.adopt(record.group, links.holder, std::move(links.holderProcess),
                                   std::move(links.holderSocket));
    if (error == 0)
        *find_link(id) = ns.release();
    return error;
}

bool namespace_is_own(nsid_t id)
{
    const znc::MutexHold lock(g_lock);
    return *find_link(id) != nullptr;
}

bool namespace_rooted_on(const char* root)
{
    const znc::MutexHold lock(g_lock);
    for (const Namespace* bucket : g_namespaces)
        for (const Namespace* ns = bucket; ns != nullptr; ns = ns->next)
            if (std::strcmp(ns->root, root) == 0)
                return true;
    return false;
}

} // namespace zn

using namespace zn;

nsid_t znnsCreate(int flags)
{
    return znnsCreateConfigured(flags, "", nullptr, nullptr, 0);
}

nsid_t znnsCreateConfigured(int /*flags*/, const char* name, const char* document, char* reason,
                            size_t size)
{
    const znc::MutexHold lock(g_lock);
    reap_dying(); // releases resources that the new namespace may need
    SettingsFault fault;
    NamespacePtr ns = namespace_new();
    if (!ns || (ns->id = unused_id()) < 0)
        return -1;
    int error = ns->settings.read(document, g_privileged, fault);
    if (error == 0)
        error = ns->settings.use_default_filter();
    if (error == 0 && g_mapped && !ns->settings.wants_user())
        error = choose_users(ns->settings);
    if (error == 0)
        error = ns->settings.make_user(fault);
    if (error == 0 && !spare_take(ns->keeper, ns->settings.clone_flags()) &&
        !ns->keeper.start(ns->settings.clone_flags()))
        return -1;
    if (error == 0)
        error = ns->settings.prepare(ns->keeper, fault);
    if (error == 0)
        error = ns->settings.make_group(ns->id, name, group_taken, fault);
    const nsid_t id = ns->id;
    const bool started = ns->keeper.pid() > 0;
    if (error == 0 || started)
        *find_link(id) = ns.release(); // appended to its bucket
    if (error == 0)
        return id;
    if (started)
        end_namespace(find_link(id));
    release_unused_device(name);
    tell_refusal(name, fault, reason, size);
    return znc::status_of(error);
}

STATUS znnsConfigurationCheck(const char* document, char* reason, size_t size)
{
    NamespaceSettings settings;
    SettingsFault fault;
    const int error = settings.read(document, false, fault);
    if (error != 0)
        tell_fault(fault, reason, size);
    return znc::status_of(error);
}

STATUS znnsSeal(nsid_t id, char* reason, size_t size)
{
    const znc::MutexHold lock(g_lock);
    Namespace* ns = find(id);
    if (ns == nullptr || ns->sealed)
        return ns == nullptr ? ERROR : OK;
    SettingsFault fault;
    const int error = ns->settings.seal(ns->keeper, fault);
    ns->sealed = error == 0;
    if (error != 0)
        tell_fault(fault, reason, size);
    return znc::status_of(error);
}

void znnsRefusalListenerSet(void (*refused)(const char* name, const char* reason))
{
    const znc::MutexHold lock(g_lock);
    g_refused = refused;
}

void znnsPrivilegedAllow(BOOL allowed)
{
    const znc::MutexHold lock(g_lock);
    g_privileged = allowed != FALSE;
}

STATUS znnsUsersMap(BOOL mapped)
{
    const znc::MutexHold lock(g_lock);
    NamespaceSettings trial;
    SettingsFault fault;
    if (mapped != FALSE) {
        int error = choose_users(trial);
        if (error == 0)
            error = trial.make_user(fault);
        if (error != 0)
            return znc::status_of(error);
    }
    g_mapped = mapped != FALSE;
    return OK;
}

STATUS znnsRootfsCreate(nsid_t id, const char* rootPath, const char* name)
{
    const znc::MutexHold lock(g_lock);
    Namespace* ns = find(id);
    if (ns == nullptr)
        return ERROR;
    if (ns->root[0] != '\0')
        return znc::status_of(EBUSY);
    int error = std::strlen(rootPath) >= sizeof ns->root ? ENAMETOOLONG : 0;
    if (error == 0) {
        ns->ownsDevice = is_own_device(rootPath, name);
        std::strcpy(ns->root, rootPath);
        overlay_device_detach_cancel(rootPath);
        error = make_root(*ns, rootPath, name);
    }
    // Without a root the namespace is useless, and the caller will not delete it.
    if (error != 0)
        end_namespace(find_link(id));
    return znc::status_of(error);
}

STATUS znnsMount(nsid_t id, const char* /*rootPath*/, const char* source, const char* destination,
                 const char* type, const char* const* options)
{
    if (is_empty(destination))
        return OK;
    const znc::MutexHold lock(g_lock);
    Namespace* ns = find(id);
    if (ns == nullptr)
        return ERROR;
    if (ns->root[0] == '\0') // the keeper still sees the host's tree
        return znc::status_of(EINVAL);
    return znc::status_of(ns->mounts.mount(ns->keeper, ns->settings.user(), ns->settings.group(),
                                           source, destination, type, options));
}

STATUS znnsUmount(nsid_t id, const char* /*rootPath*/, const char* /*source*/,
                  const char* destination, const char* /*type*/, const char* const* /*options*/)
{
    if (is_empty(destination))
        return OK;
    const znc::MutexHold lock(g_lock);
    Namespace* ns = find(id);
    return ns == nullptr ? ERROR : undo_result(ns->mounts.unmount(ns->keeper, destination));
}

STATUS znnsRootfsDestroy(nsid_t id, const char* /*rootPath*/, const char* /*name*/)
{
    const znc::MutexHold lock(g_lock);
    Namespace* ns = find(id);
    if (ns == nullptr)
        return ERROR;
    remove_record(*ns);
    release_device(*ns);
    return OK;
}

STATUS znnsDelete(nsid_t id)
{
    const znc::MutexHold lock(g_lock);
    reap_dying();
    if (find(id) == nullptr)
        return ERROR;
    end_namespace(find_link(id));
    return OK;
}

STATUS znnsKill(nsid_t id, int signo)
{
    const int host = znSignalToHost(signo);
    if (host < 0)
        return ERROR;
    const znc::MutexHold lock(g_lock);
    Namespace* ns = find(id);
    if (ns == nullptr)
        return ERROR;
    return undo_result(ns->keeper.ask(wire::Op::kKill, static_cast<std::uint64_t>(host)));
}

STATUS znnsProcessKill(nsid_t id, OBJ_HANDLE handle, int signo)
{
    const int host = znSignalToHost(signo);
    if (host < 0)
        return ERROR;
    const znc::MutexHold lock(g_lock);
    const Namespace* ns = find(id);
    if (ns == nullptr)
        return ERROR;
    // Open the pidfd first, then check the namespace by id. If the id is reused in between, the
    // signal through the pidfd fails with ESRCH.
    const pid_t keeper = ns->keeper.pid();
    const UniqueFd process = handle > 0 && handle != keeper ? process_open(handle) : UniqueFd();
    if (!process || !same_pid_namespace(handle, keeper) || process_ended(process.get(), 0))
        return znc::status_of(ESRCH);
    return process_signal(process.get(), host) == 0 ? OK : ERROR;
}

STATUS znnsInUse(nsid_t id, BOOL* inUse)
{
    const znc::MutexHold lock(g_lock);
    Namespace* ns = find(id);
    if (ns == nullptr)
        return ERROR;
    if (ns->entry.is_open(id) && !ns->keeper.ended(0)) {
        *inUse = TRUE;
        return OK;
    }
    bool used = false;
    const int error = ns->keeper.in_use(used);
    if (error != 0 && error != ESRCH)
        return znc::status_of(error);
    *inUse = used ? TRUE : FALSE;
    return OK;
}

STATUS znnsExpect(nsid_t id, pid_t caller)
{
    const znc::MutexHold lock(g_lock);
    Namespace* ns = find(id);
    return ns != nullptr && ns->entry.begin(id, caller) == 0 ? OK : ERROR;
}

STATUS znnsExpectEnd(nsid_t id)
{
    return ns_record_mark(id, Entry::kOver) == 0 ? OK : ERROR;
}

STATUS znnsUrgentAllow(nsid_t id, BOOL allowed)
{
    const znc::MutexHold lock(g_lock);
    const Grant grant = allowed != FALSE ? Grant::kUrgent : Grant::kNone;
    return find(id) != nullptr && ns_record_mark(id, grant) == 0 ? OK : ERROR;
}

void znnsKillAll(void)
{
    const znc::MutexHold lock(g_lock);
    g_killDeadline = now_ns() + kKillAllNs;
    for (Namespace* bucket : g_namespaces)
        for (Namespace* ns = bucket; ns != nullptr; ns = ns->next) {
            cgroup_thaw(ns->settings.group());
            ns->keeper.kill_others(milliseconds_until(g_killDeadline));
        }
}

int znnsShutdown(void)
{
    const znc::MutexHold lock(g_lock);
    for (Namespace*& bucket : g_namespaces)
        while (bucket != nullptr)
            end_namespace(&bucket);
    const int left = settle_dying();
    keep_leave();
    return left;
}

int znnsLeave(void)
{
    const znc::MutexHold lock(g_lock);
    for (Namespace*& bucket : g_namespaces)
        for (Namespace** at = &bucket; *at != nullptr;)
            if (keep_has((*at)->id))
                at = &(*at)->next;
            else
                end_namespace(at);
    settle_dying();
    return keep_leave();
}

void znnsReap(void)
{
    {
        const znc::MutexHold lock(g_lock);
        reap_dying();
        overlay_devices_retry();
    }
    keep_check();
}
