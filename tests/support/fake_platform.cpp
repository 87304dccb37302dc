#include "fake_platform.hpp"

#include "zarnel/ns.h"
#include "zarnel/ns_keep.h"
#include "zarnel/overlay.h"

#include <cerrno>
#include <map>
#include <mutex>

namespace {

struct Failure {
    unsigned left;
    int error;
};

std::mutex guard;
std::vector<fake::Call> recorded;
std::multimap<std::string, Failure> failures;
std::map<int32_t, std::string> live;                      // namespace -> its root
std::map<std::string, std::vector<std::string>> existing; // device -> its directories
std::map<int32_t, fake::Kept> noted;                      // namespace -> what znnsKeep was given
int32_t next_ns = 1;
bool reported_in_use = false;

std::string text(const char* s)
{
    return s != nullptr ? s : "<null>";
}

// Records the call; returns true, with errno set, if it is to fail.
bool record_fails(const fake::Call& call)
{
    recorded.push_back(call);
    bool fails = false;
    auto [it, end] = failures.equal_range(call.op);
    while (it != end) {
        if (--it->second.left != 0) {
            ++it;
            continue;
        }
        errno = it->second.error;
        fails = true;
        it = failures.erase(it);
    }
    return fails;
}

bool unknown(nsid_t ns)
{
    if (live.contains(ns))
        return false;
    errno = EINVAL;
    return true;
}

fake::Call mount_call(const char* op, nsid_t ns, const char* root)
{
    fake::Call call;
    call.op = op;
    call.ns = ns;
    call.root = text(root);
    return call;
}

STATUS mount_like(fake::Call call, const char* source, const char* destination, const char* type,
                  const char* const* options)
{
    call.source = text(source);
    call.destination = text(destination);
    call.type = text(type);
    call.list_is_null = options == nullptr;
    for (; options != nullptr && *options != nullptr; ++options)
        call.list.emplace_back(*options);
    const std::lock_guard lock(guard);
    return record_fails(call) || unknown(call.ns) ? ERROR : OK;
}

} // namespace

namespace fake {

void reset()
{
    const std::lock_guard lock(guard);
    recorded.clear();
    failures.clear();
    live.clear();
    existing.clear();
    noted.clear();
    reported_in_use = false;
}

void fail(const std::string& op, unsigned nth, int error)
{
    const std::lock_guard lock(guard);
    failures.insert({op, {nth, error}});
}

void set_in_use(bool in_use)
{
    const std::lock_guard lock(guard);
    reported_in_use = in_use;
}

std::vector<Call> calls()
{
    const std::lock_guard lock(guard);
    return recorded;
}

std::vector<Call> calls_of(const std::string& op)
{
    std::vector<Call> found;
    for (const Call& call : calls())
        if (call.op == op)
            found.push_back(call);
    return found;
}

std::vector<std::string> ops()
{
    std::vector<std::string> names;
    for (const Call& call : calls())
        names.push_back(call.op);
    return names;
}

std::set<int32_t> namespaces()
{
    const std::lock_guard lock(guard);
    std::set<int32_t> ids;
    for (const auto& [id, root] : live)
        ids.insert(id);
    return ids;
}

std::map<int32_t, Kept> kept()
{
    const std::lock_guard lock(guard);
    return noted;
}

void set_note(int32_t ns, const std::string& note)
{
    const std::lock_guard lock(guard);
    noted[ns].note = note;
}

std::set<std::string> devices()
{
    const std::lock_guard lock(guard);
    std::set<std::string> names;
    for (const auto& [name, dirs] : existing)
        names.insert(name);
    return names;
}

} // namespace fake

nsid_t znnsCreate(int flags)
{
    fake::Call call;
    call.op = "znnsCreate";
    call.number = flags;
    const std::lock_guard lock(guard);
    if (record_fails(call))
        return -1;
    live[next_ns] = "";
    return next_ns++;
}

// Recorded as "znnsCreate": to the library's callers both are the creation of a namespace.
nsid_t znnsCreateConfigured(int flags, const char* /*name*/, const char* /*document*/,
                            char* /*reason*/, size_t /*size*/)
{
    return znnsCreate(flags);
}

STATUS znnsConfigurationCheck(const char* /*document*/, char* /*reason*/, size_t /*size*/)
{
    return OK;
}

STATUS znnsSeal(nsid_t /*ns*/, char* /*reason*/, size_t /*size*/)
{
    return OK;
}

STATUS znnsRootfsCreate(nsid_t ns, const char* rootPath, const char* name)
{
    fake::Call call = mount_call("znnsRootfsCreate", ns, rootPath);
    call.name = text(name);
    const std::lock_guard lock(guard);
    if (record_fails(call) || unknown(ns)) {
        // As the interface specifies: the namespace no longer exists, nor does a device created for
        // it.
        live.erase(ns);
        existing.erase(call.root);
        return ERROR;
    }
    live[ns] = call.root;
    return OK;
}

STATUS znnsMount(nsid_t ns, const char* rootPath, const char* source, const char* destination,
                 const char* type, const char* const* options)
{
    return mount_like(mount_call("znnsMount", ns, rootPath), source, destination, type, options);
}

STATUS znnsUmount(nsid_t ns, const char* rootPath, const char* source, const char* destination,
                  const char* type, const char* const* options)
{
    return mount_like(mount_call("znnsUmount", ns, rootPath), source, destination, type, options);
}

STATUS znnsRootfsDestroy(nsid_t ns, const char* rootPath, const char* name)
{
    fake::Call call = mount_call("znnsRootfsDestroy", ns, rootPath);
    call.name = text(name);
    const std::lock_guard lock(guard);
    if (record_fails(call) || unknown(ns))
        return ERROR;
    existing.erase(live[ns]);
    live[ns].clear();
    return OK;
}

STATUS znnsDelete(nsid_t ns)
{
    fake::Call call;
    call.op = "znnsDelete";
    call.ns = ns;
    const std::lock_guard lock(guard);
    if (record_fails(call) || unknown(ns))
        return ERROR;
    live.erase(ns);
    return OK;
}

STATUS znnsKill(nsid_t ns, int signo)
{
    fake::Call call;
    call.op = "znnsKill";
    call.ns = ns;
    call.number = signo;
    const std::lock_guard lock(guard);
    return record_fails(call) || unknown(ns) ? ERROR : OK;
}

STATUS znnsProcessKill(nsid_t ns, OBJ_HANDLE handle, int signo)
{
    fake::Call call;
    call.op = "znnsProcessKill";
    call.ns = ns;
    call.handle = handle;
    call.number = signo;
    const std::lock_guard lock(guard);
    if (record_fails(call) || unknown(ns))
        return ERROR;
    if (handle != 0)
        return OK;
    errno = ESRCH;
    return ERROR;
}

STATUS znnsInUse(nsid_t ns, BOOL* inUse)
{
    fake::Call call;
    call.op = "znnsInUse";
    call.ns = ns;
    const std::lock_guard lock(guard);
    *inUse = reported_in_use ? TRUE : FALSE; // set even on failure: callers must not use it then
    return record_fails(call) || unknown(ns) ? ERROR : OK;
}

STATUS znnsExpect(nsid_t ns, pid_t caller)
{
    fake::Call call;
    call.op = "znnsExpect";
    call.ns = ns;
    call.number = caller;
    const std::lock_guard lock(guard);
    return record_fails(call) || unknown(ns) ? ERROR : OK;
}

STATUS znnsExpectEnd(nsid_t ns)
{
    fake::Call call;
    call.op = "znnsExpectEnd";
    call.ns = ns;
    const std::lock_guard lock(guard);
    return record_fails(call) || unknown(ns) ? ERROR : OK;
}

STATUS znnsUrgentAllow(nsid_t ns, BOOL allowed)
{
    fake::Call call;
    call.op = "znnsUrgentAllow";
    call.ns = ns;
    call.number = allowed;
    const std::lock_guard lock(guard);
    return record_fails(call) || unknown(ns) ? ERROR : OK;
}

int znnsRecover(void)
{
    return 0;
}
int znnsShutdown(void)
{
    return 0;
}

void znnsKillAll(void) {}

STATUS znnsKeep(nsid_t ns, pid_t program, const void* note, size_t size)
{
    fake::Call call;
    call.op = "znnsKeep";
    call.ns = ns;
    call.handle = program;
    const std::lock_guard lock(guard);
    if (record_fails(call) || unknown(ns))
        return ERROR;
    noted[ns] = {program, std::string(static_cast<const char*>(note), size)};
    return OK;
}

// The namespaces that were kept are taken over as they are; those that are not accepted end.
int znnsAdopt(BOOL (*accept)(const znKept* kept, void* context),
              void (*refused)(const char* name, nsid_t ns, const char* reason, void* context),
              void* context)
{
    int adopted = 0;
    for (const auto& [ns, one] : fake::kept()) {
        const znKept given = {ns, TRUE, one.program, one.note.data(), one.note.size()};
        if (accept(&given, context) != FALSE) {
            adopted++;
            continue;
        }
        refused("", ns, "refused", context);
        const std::lock_guard lock(guard);
        live.erase(ns);
        noted.erase(ns);
    }
    return adopted;
}

void znnsReap(void) {}

void znnsSparesSet(unsigned /*count*/) {}

void znnsSparesMake(void) {}

STATUS znOvlDevCreate(const char* devName, const char* const* dirs, uint32_t dirNum, BOOL hasUpper)
{
    fake::Call call;
    call.op = "znOvlDevCreate";
    call.name = text(devName);
    call.number = hasUpper;
    for (uint32_t i = 0; i < dirNum; i++)
        call.list.emplace_back(dirs[i]);
    const std::lock_guard lock(guard);
    if (record_fails(call))
        return ERROR;
    bool rooted = false;
    for (const auto& [id, root] : live)
        rooted = rooted || root == call.name;
    if (existing.contains(call.name) && rooted) {
        errno = EEXIST;
        return ERROR;
    }
    existing[call.name] = call.list;
    return OK;
}

STATUS znOvlDevRemove(const char* devName)
{
    fake::Call call;
    call.op = "znOvlDevRemove";
    call.name = text(devName);
    const std::lock_guard lock(guard);
    if (record_fails(call))
        return ERROR;
    if (existing.erase(call.name) != 0)
        return OK;
    errno = ENOENT;
    return ERROR;
}

uint32_t znOvlDirsMax(void)
{
    return 500;
}

STATUS znOvlDevDirs(const char* devName, BOOL (*visit)(void* context, const char* dir),
                    void* context)
{
    const std::lock_guard lock(guard);
    const auto device = existing.find(text(devName));
    if (device == existing.end()) {
        errno = ENOENT;
        return ERROR;
    }
    for (const std::string& dir : device->second)
        if (visit(context, dir.c_str()) == FALSE)
            break;
    return OK;
}

BOOL znOvlInit(void)
{
    return TRUE;
}
int znOvlRestore(void)
{
    return 0;
}
int znOvlSweep(void)
{
    return 0;
}

BOOL znOvlDevInUse(const char* devName)
{
    const std::lock_guard lock(guard);
    for (const auto& [id, root] : live)
        if (root == text(devName))
            return TRUE;
    return FALSE;
}
