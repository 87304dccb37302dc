#include "zarnel/spawn.h"

#include "helper/wire.hpp"
#include "launch.hpp"
#include "ns_record.hpp"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr int kDefaultPriority = 100;

// 0 is the most urgent priority and nice -20, 100 nice 0, 255 nice 19.
int nice_value(int priority)
{
    return priority <= kDefaultPriority
               ? (priority - kDefaultPriority) * 20 / kDefaultPriority
               : (priority - kDefaultPriority) * 19 / (255 - kDefaultPriority);
}

// What is behind the namespace's root in a host path; null when the path is not below it.
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
    znc::MallocPtr<char*[]> argv;

    bool make(const char* program, const znSpawnAttr& attr, char* const* args)
    {
        std::memcpy(name, wire::kSpawnerName, sizeof name);
        std::snprintf(nice, sizeof nice, "%d", nice_value(attr.priority));
        std::snprintf(stack, sizeof stack, "%d", attr.stackSize);
        const std::size_t count = list_length(args);
        argv = znc::malloc_array<char*>(wire::kSpawnerFixedArgs + count + 2);
        if (!argv)
            return false;
        argv[0] = name;
        argv[1] = nice;
        argv[2] = stack;
        argv[3] = const_cast<char*>(attr.cwd != nullptr ? attr.cwd : "/");
        argv[4] = const_cast<char*>(program);
        for (std::size_t i = 0; i < count; i++)
            argv[wire::kSpawnerFixedArgs + i] = args[i];
        if (count == 0) // a program always has a name
            argv[wire::kSpawnerFixedArgs] = const_cast<char*>(program);
        return true;
    }
};

// The streams of a caller that closed some: the program must not get another file in their place.
class StandardStreams {
  public:
    bool fill()
    {
        for (int fd = 0; fd <= 2; fd++) {
            if (::fcntl(fd, F_GETFD) >= 0)
                continue;
            if (::open("/dev/null", O_RDWR | O_CLOEXEC) < 0)
                return false;
            filled_[fd] = true;
        }
        return true;
    }
    ~StandardStreams()
    {
        for (int fd = 0; fd <= 2; fd++)
            if (filled_[fd])
                const UniqueFd closed(fd);
    }
    StandardStreams() = default;
    StandardStreams(const StandardStreams&) = delete;
    StandardStreams& operator=(const StandardStreams&) = delete;
    [[nodiscard]] bool filled(int fd) const { return filled_[fd]; }

  private:
    bool filled_[3] = {};
};

// Waits for a process that is about to end.
void collect(pid_t pid)
{
    const znc::ErrnoSaver keep;
    while (::waitpid(pid, nullptr, __WALL) < 0 && errno == EINTR) {
    }
}

// What the spawner and the program's process said until the program ran (end of file).
struct Outcome {
    pid_t pid = -1;
    int error = 0;

    void read_from(int pipe)
    {
        wire::SpawnReport report;
        for (;;) {
            const ssize_t n = ::read(pipe, &report, sizeof report);
            if (n < 0 && errno == EINTR)
                continue;
            if (n != static_cast<ssize_t>(sizeof report))
                return;
            if (report.kind == wire::SpawnReport::Kind::kPid)
                pid = report.value;
            else
                error = report.value;
        }
    }
};

// ENOMEM is what clone says in a process namespace whose keeper is dead.
int error_of(const Outcome& outcome, const NsRecord& record)
{
    if (outcome.error == ENOMEM || (outcome.error == 0 && outcome.pid < 0)) {
        const UniqueFd keeper = ns_record_keeper(record);
        if (!keeper)
            return ESRCH;
    }
    return outcome.error != 0 ? outcome.error : outcome.pid < 0 ? ECHILD : 0;
}

int run_spawner(const UniqueFd& keeper, const Arguments& arguments, char* const* envp,
                const StandardStreams& streams, Outcome& outcome)
{
    const UniqueFd file = helper_file();
    int pipes[2];
    if (!file || ::pipe2(pipes, O_CLOEXEC) != 0)
        return errno;
    const UniqueFd reader(pipes[0]);
    UniqueFd writer(pipes[1]);
    LaunchFd fds[5] = {{keeper.get(), wire::kSpawnerNamespace},
                       {writer.get(), wire::kSpawnerReport}};
    std::size_t count = 2;
    for (int fd = 0; fd <= 2; fd++)
        if (streams.filled(fd))
            fds[count++] = {fd, fd};
    char* const none[] = {nullptr};
    UniqueFd pidfd;
    const pid_t spawner = launch_helper({file.get(),
                                         SIGCHLD,
                                         {fds, count},
                                         wire::kSpawnerFdEnd,
                                         arguments.argv.get(),
                                         envp != nullptr ? envp : none},
                                        pidfd);
    if (spawner < 0)
        return errno;
    writer.reset();
    outcome.read_from(reader.get());
    collect(spawner);
    return 0;
}

} // namespace
} // namespace zn

using namespace zn;

STATUS znSpawnAttrInit(znSpawnAttr* attr)
{
    *attr = znSpawnAttr{kDefaultPriority, 0, 0, 0, -1, nullptr, 0};
    return OK;
}

STATUS znSpawnAttrDestroy(znSpawnAttr* attr)
{
    return znSpawnAttrInit(attr);
}

static STATUS accept_if(bool good)
{
    if (!good)
        errno = EINVAL;
    return good ? OK : ERROR;
}

STATUS znSpawnAttrSetPriority(znSpawnAttr* attr, int priority)
{
    attr->priority = priority;
    return accept_if(priority >= 0 && priority <= 255);
}

STATUS znSpawnAttrSetStackSize(znSpawnAttr* attr, int stackSize)
{
    attr->stackSize = stackSize;
    return accept_if(stackSize >= 0);
}

STATUS znSpawnAttrSetOptions(znSpawnAttr* attr, int options)
{
    attr->options = options;
    return OK;
}

STATUS znSpawnAttrSetTaskOptions(znSpawnAttr* attr, int taskOptions)
{
    attr->taskOptions = taskOptions;
    return OK;
}

STATUS znSpawnAttrSetNamespace(znSpawnAttr* attr, nsid_t ns)
{
    attr->ns = ns;
    return accept_if(ns >= 0);
}

STATUS znSpawnAttrSetCwd(znSpawnAttr* attr, const char* cwd)
{
    attr->cwd = cwd;
    return accept_if(cwd != nullptr && cwd[0] == '/');
}

STATUS znSpawnAttrSetFlags(znSpawnAttr* attr, short flags)
{
    attr->flags = flags;
    return OK;
}

STATUS znSpawn(pid_t* pid, const char* path, const znSpawnAttr* attr, char* const* argv,
               char* const* envp)
{
    StandardStreams streams; // before anything else is opened in their place
    if (!streams.fill())
        return ERROR;
    NsRecord record;
    if (path == nullptr || ns_record_read(attr->ns, record) != 0) {
        errno = path == nullptr ? EINVAL : ESRCH;
        return ERROR;
    }
    const char* program = path_inside(path, record.root);
    const UniqueFd keeper = ns_record_keeper(record);
    Arguments arguments;
    if (!keeper || program == nullptr || !arguments.make(program, *attr, argv)) {
        if (keeper && program == nullptr)
            errno = EINVAL;
        return ERROR;
    }
    Outcome outcome;
    int error = run_spawner(keeper, arguments, envp, streams, outcome);
    if (error == 0)
        error = error_of(outcome, record);
    if (error == 0) {
        *pid = outcome.pid;
        return OK;
    }
    if (outcome.pid > 0)
        collect(outcome.pid);
    errno = error;
    return ERROR;
}
