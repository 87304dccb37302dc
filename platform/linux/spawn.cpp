#include "zarnel/spawn.h"

#include "base/failure.hpp"
#include "base/not_copied.hpp"
#include "helper/wire.hpp"
#include "launch.hpp"
#include "ns_record.hpp"
#include "system/pidfd.hpp"
#include "zarnel/fs.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr int kNormalPriority = 100; // of znSpawnAttrInit

// Priority 0 (most urgent) is nice -20, 100 is nice 0, 255 is nice 19.
int nice_value(int priority)
{
    return priority <= kNormalPriority
               ? (priority - kNormalPriority) * 20 / kNormalPriority
               : (priority - kNormalPriority) * 19 / (255 - kNormalPriority);
}

// The part of the host path `path` below the namespace's root; null if it is not below the root.
const char* path_inside(const char* path, const char* root)
{
    std::size_t len = std::strlen(root);
    while (len > 0 && root[len - 1] == '/')
        len--;
    if (std::strncmp(path, root, len) != 0 || (path[len] != '/' && path[len] != '\0'))
        return nullptr;
    return path[len] != '\0' ? path + len : "/";
}

std::size_t list_length(char* const* list)
{
    std::size_t n = 0;
    while (list != nullptr && list[n] != nullptr)
        n++;
    return n;
}

// The spawner's argument vector: its own arguments, then the program's.
struct Arguments {
    char name[sizeof wire::kSpawnerName];
    char nice[16];
    char stack[16];
    znc::MallocPtr<char[]> user;
    znc::MallocPtr<char*[]> argv;

    bool make(const char* program, const znSpawnAttr& attr, char* const* args, Grant grant)
    {
        std::memcpy(name, wire::kSpawnerName, sizeof name);
        const int wanted = nice_value(attr.priority);
        std::snprintf(nice, sizeof nice, "%d",
                      grant == Grant::kUrgent ? wanted : std::max(wanted, 0));
        std::snprintf(stack, sizeof stack, "%d", attr.stackSize);
        const std::size_t count = list_length(args);
        argv = znc::malloc_array<char*>(wire::kSpawnerFixedArgs + count + 2);
        if (!argv || !make_user(attr.user))
            return false;
        argv[0] = name;
        argv[1] = nice;
        argv[2] = stack;
        argv[3] = const_cast<char*>(attr.cwd != nullptr ? attr.cwd : "/");
        argv[4] = user.get();
        argv[5] = const_cast<char*>(program);
        for (std::size_t i = 0; i < count; i++)
            argv[wire::kSpawnerFixedArgs + i] = args[i];
        if (count == 0) // argv[0] must exist
            argv[wire::kSpawnerFixedArgs] = const_cast<char*>(program);
        return true;
    }

  private:
    bool make_user(const ZN_SPAWN_USER* who)
    {
        constexpr std::size_t kNumber = 11; // ":4294967295"
        const std::size_t size = who != nullptr ? (who->groupCount + 2) * kNumber + 1 : 1;
        user = znc::malloc_array<char>(size);
        if (!user || who == nullptr)
            return static_cast<bool>(user);
        int at = std::snprintf(user.get(), size, "%u:%u", who->uid, who->gid);
        for (std::size_t i = 0; i < who->groupCount; i++)
            at += std::snprintf(user.get() + at, size - static_cast<std::size_t>(at), ":%u",
                                who->groups[i]);
        return true;
    }
};

// The program's standard streams: those of the caller, or the null device for those that the caller
// has closed. If another task opens a file while stdin, stdout or stderr is closed, the file gets
// that number; a descriptor with FD_CLOEXEC is therefore treated as closed.
class StandardStreams {
  public:
    StandardStreams()
    {
        for (int fd = 0; fd <= 2; fd++)
            source_[fd] = ::fcntl(fd, F_GETFD) == 0 ? fd : -1;
    }
    bool fill()
    {
        for (int& source : source_) {
            if (source >= 0)
                continue;
            if (!null_)
                null_.reset(::open(ZN_NULL_DEVICE, O_RDWR | O_CLOEXEC));
            source = null_.get();
        }
        return source_[0] >= 0 && source_[1] >= 0 && source_[2] >= 0;
    }
    [[nodiscard]] int source(int fd) const { return source_[fd]; }

  private:
    int source_[3];
    UniqueFd null_;
};

// Reaps a process that is about to end.
void collect(pid_t pid)
{
    const znc::ErrnoSaver keep;
    while (::waitpid(pid, nullptr, __WALL) < 0 && errno == EINTR) {
    }
}

// The reports of the spawner and of the program's process.
struct Outcome {
    pid_t pid = -1;
    int error = 0;

    void read_from(int pipe)
    {
        wire::SpawnReport report;
        while (::read(pipe, &report, sizeof report) == static_cast<ssize_t>(sizeof report)) {
            if (report.kind == wire::SpawnReport::Kind::kPid)
                pid = report.value;
            else
                error = report.value;
        }
    }
};

// While it exists, the namespace's record says that a process is entering the namespace.
class EntryMark : znc::NotCopied {
  public:
    explicit EntryMark(nsid_t ns) : ns_(ns) { mark(Entry::kEntering); }
    ~EntryMark() { mark(Entry::kOver); }

  private:
    // Errors are ignored: without a record the namespace does not exist and cannot be entered.
    void mark(Entry entry) const
    {
        const znc::ErrnoSaver keep;
        static_cast<void>(ns_record_mark(ns_, entry));
    }

    nsid_t ns_;
};

// clone fails with ENOMEM in a PID namespace whose keeper is dead.
int error_of(const Outcome& outcome, const NsRecord& record)
{
    if (outcome.error == ENOMEM || (outcome.error == 0 && outcome.pid < 0)) {
        const UniqueFd keeper = ns_record_keeper(record);
        if (!keeper && ns_record_is_void(errno))
            return ESRCH;
    }
    return outcome.error != 0 ? outcome.error : outcome.pid < 0 ? ECHILD : 0;
}

// What the spawner joins.
struct Joined {
    nsid_t ns;
    UniqueFd keeper;
    UniqueFd holder; // invalid: there is no user namespace
};

int run_spawner(const Joined& joined, const Arguments& arguments, char* const* envp,
                const StandardStreams& streams, Outcome& outcome)
{
    const UniqueFd record = ns_record_open(joined.ns);
    const UniqueFd file = record ? helper_file() : UniqueFd();
    int pipes[2];
    if (!record && errno == ENOENT)
        return ESRCH; // deleted since its record was read
    if (!file || !record || ::pipe2(pipes, O_CLOEXEC | O_NONBLOCK) != 0)
        return errno;
    const UniqueFd reader(pipes[0]);
    const UniqueFd writer(pipes[1]);
    const LaunchFd fds[] = {
        {streams.source(0), 0},
        {streams.source(1), 1},
        {streams.source(2), 2},
        {joined.keeper.get(), wire::kSpawnerNamespace},
        {writer.get(), wire::kSpawnerReport},
        {record.get(), wire::kSpawnerRecord},
        {(joined.holder ? joined.holder : joined.keeper).get(), wire::kSpawnerUser}};
    char* const none[] = {nullptr};
    UniqueFd pidfd;
    const pid_t spawner = launch_helper({file.get(), SIGCHLD, fds, wire::kSpawnerFdEnd,
                                         arguments.argv.get(), envp != nullptr ? envp : none},
                                        pidfd);
    if (spawner < 0)
        return errno;
    // The spawner exits when the program runs or could not be started. End of file on the pipe
    // cannot be used for this: a process forked by another task at the same time may hold the pipe
    // open.
    process_reap(pidfd.get());
    outcome.read_from(reader.get());
    return 0;
}

} // namespace
} // namespace zn

using namespace zn;

STATUS znSpawn(pid_t* pid, const char* path, const znSpawnAttr* attr, char* const* argv,
               char* const* envp)
{
    StandardStreams streams;
    if (path == nullptr)
        return znc::fail(EINVAL);
    const EntryMark entering(attr->ns);
    NsRecord record;
    if (!streams.fill())
        return ERROR;
    Joined joined = {attr->ns, ns_record_live(attr->ns, record), {}};
    if (!joined.keeper)
        return ERROR;
    if (record.holder != 0 && !(joined.holder = ns_record_holder(record)))
        return ERROR;
    const char* program = path_inside(path, record.root);
    bool frozen = false;
    if (record.group[0] != '\0' && cgroup_frozen(record.group, frozen) == 0 && frozen)
        program = nullptr; // the program would not start before the namespace is thawed
    if (program == nullptr)
        return znc::fail(frozen ? EBUSY : EINVAL);
    Arguments arguments;
    if (!arguments.make(program, *attr, argv, record.grant))
        return ERROR;
    Outcome outcome;
    int error = run_spawner(joined, arguments, envp, streams, outcome);
    if (error == 0)
        error = error_of(outcome, record);
    if (error == 0) {
        *pid = outcome.pid;
        return OK;
    }
    if (outcome.pid > 0)
        collect(outcome.pid);
    return znc::fail(error);
}
