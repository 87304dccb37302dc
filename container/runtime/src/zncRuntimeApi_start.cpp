// zncRuntimeApi_start.cpp - starts a container: the daemon returns the parameters, the client
// spawns the process and reports its id to the daemon.
#include "zncRuntimeApi.hpp"

#include "base/failure.hpp"
#include "base/not_copied.hpp"
#include "zarnel/ns.h"
#include "zarnel/spawn.h"

#include <algorithm>
#include <cerrno>
#include <sys/wait.h>

namespace {

using znc::template_param;

enum StartParam : std::size_t {
    kAppPath,
    kArg,
    kEnv,
    kOption,
    kPriority,
    kStackSize,
    kTaskOption,
    kNsId,
    kCwd,
    kPosixFlags
};

constexpr std::array kStartTemplate = {
    template_param(STRING, "appPath"),     template_param(STRING_ARRAY, "arg"),
    template_param(STRING_ARRAY, "env"),   template_param(INTEGER, "option"),
    template_param(INTEGER, "priority"),   template_param(INTEGER, "stackSize"),
    template_param(INTEGER, "taskOption"), template_param(INTEGER, "nsId"),
    template_param(STRING, "cwd"),         template_param(INTEGER, "posixFlags"),
};

constexpr int kSignalTerm = 15;

// A container's spawn parameters. Strings point into the reply.
class StartParams : znc::NotCopied {
  public:
    explicit StartParams(cJSON* object) noexcept : params_(kStartTemplate)
    {
        if (zncParamObjGet(object, params_.data(), count()) == OK)
            return;
        // The parameters read before the failure are used, except for the vectors, which
        // zncParamObjGet has already freed.
        params_[kArg].value = 0;
        params_[kEnv].value = 0;
    }
    ~StartParams()
    {
        const znc::ErrnoSaver keep;
        static_cast<void>(zncParamObjDestroy(params_.data(), count()));
    }

    [[nodiscard]] bool empty() const noexcept
    {
        return std::all_of(params_.begin(), params_.end(),
                           [](const zncParam& param) { return param.value == 0; });
    }
    [[nodiscard]] int number(StartParam which) const noexcept
    {
        return static_cast<int>(params_[which].value);
    }
    [[nodiscard]] const char* text(StartParam which) const noexcept
    {
        return znc::param_pointer<const char>(params_[which]);
    }
    [[nodiscard]] char** vector(StartParam which) const noexcept
    {
        return znc::param_pointer<char*>(params_[which]);
    }

  private:
    [[nodiscard]] unsigned count() const noexcept { return static_cast<unsigned>(params_.size()); }

    std::array<zncParam, kStartTemplate.size()> params_;
};

class SpawnAttributes : znc::NotCopied {
  public:
    SpawnAttributes() noexcept : isSet_(znSpawnAttrInit(&attr_) == OK) {}
    ~SpawnAttributes()
    {
        const znc::ErrnoSaver keep;
        if (isSet_)
            znSpawnAttrDestroy(&attr_);
    }

    // False as soon as the platform rejects a value.
    bool set(const StartParams& start) noexcept
    {
        return isSet_ && znSpawnAttrSetPriority(&attr_, start.number(kPriority)) == OK &&
               znSpawnAttrSetStackSize(&attr_, start.number(kStackSize)) == OK &&
               znSpawnAttrSetOptions(&attr_, start.number(kOption) | ZN_SPAWN_OPT_LOADED) == OK &&
               znSpawnAttrSetTaskOptions(&attr_, start.number(kTaskOption)) == OK &&
               znSpawnAttrSetNamespace(&attr_, start.number(kNsId)) == OK &&
               znSpawnAttrSetCwd(&attr_, start.text(kCwd)) == OK &&
               znSpawnAttrSetFlags(&attr_, static_cast<short>(start.number(kPosixFlags))) == OK;
    }
    [[nodiscard]] const znSpawnAttr* get() const noexcept { return &attr_; }

  private:
    znSpawnAttr attr_ = {};
    bool isSet_;
};

bool spawn(const StartParams& start, const SpawnAttributes& attributes, pid_t* pid)
{
    char* no_args[] = {nullptr};
    char** arg = start.vector(kArg);
    if (start.text(kAppPath) != nullptr &&
        znSpawn(pid, start.text(kAppPath), attributes.get(), arg != nullptr ? arg : no_args,
                start.vector(kEnv)) == OK)
        return true;
    return znc::fail(S_zncLib_RTP_SPAWN_FAILED, false);
}

// The container counts as running, but the daemon does not know its process: kill it.
STATUS kill_unknown(const char* containerId)
{
    const znc::ErrnoSaver keep;
    static_cast<void>(zncKill(containerId, kSignalTerm, ZNC_OPT_WHOLE_NAMESPACE));
    return ERROR;
}

// Waits until the process has ended. EINTR must not end the wait: the process would run on and its
// id would be lost. Stops are ignored as well; waitpid reports them without WUNTRACED if the
// process made its parent its tracer (PTRACE_TRACEME).
pid_t wait_for(pid_t pid)
{
    int status = 0;
    pid_t ended = 0;
    do
        ended = ::waitpid(pid, &status, 0);
    while ((ended < 0 && errno == EINTR) || (ended > 0 && WIFSTOPPED(status)));
    return ended;
}

STATUS request_start(const char* containerId, unsigned int option, znc::Reply* reply)
{
    if (containerId == nullptr)
        return znc::fail(EINVAL);
    std::array params = {znc::string_param("containerId", containerId),
                         znc::integer_param("option", option)};
    return znc::request_reply(ZNC_START, params, reply);
}

// Spawns the process described in the body of a start reply and reports its id to the daemon. `pid`
// is 0 if no process was spawned, also if the reply asks for none.
STATUS start_process(const char* containerId, cJSON* array, pid_t* pid)
{
    *pid = 0;
    if (containerId == nullptr)
        return znc::fail(EINVAL);
    cJSON* object = cJSON_GetArrayItem(array, 0);
    if (object == nullptr)
        return znc::fail(EBADMSG);
    const StartParams start(object);
    if (start.empty())
        return OK;
    SpawnAttributes attributes;
    if (!attributes.set(start) || !spawn(start, attributes, pid)) {
        const znc::ErrnoSaver keep;
        znnsExpectEnd(start.number(kNsId)); // needed even if znSpawn was never called
        return ERROR;
    }
    if (*pid == 0 || zncContextObjHandleStore(containerId, *pid) != OK)
        return kill_unknown(containerId);
    return OK;
}

} // namespace

STATUS zncStart(const char* containerId, unsigned int option)
{
    znc::Reply reply;
    if (request_start(containerId, option, &reply) != OK)
        return ERROR;
    return zncContextStart(containerId, reply.body, option);
}

STATUS zncStartPid(const char* containerId, unsigned int option, pid_t* pPid)
{
    if (pPid == nullptr)
        return znc::fail(EINVAL);
    *pPid = 0;
    znc::Reply reply;
    if (request_start(containerId, option | ZNC_OPT_NO_WAIT, &reply) != OK)
        return ERROR;
    return start_process(containerId, reply.body, pPid);
}

STATUS zncContextStart(const char* containerId, cJSON* array, unsigned int option)
{
    pid_t pid = 0;
    if (start_process(containerId, array, &pid) != OK)
        return ERROR;
    if (pid == 0 || (option & ZNC_OPT_NO_WAIT) != 0)
        return OK;
    return wait_for(pid); // returns the process id, not OK
}

STATUS zncContextObjHandleStore(const char* containerId, OBJ_HANDLE objHandle)
{
    std::array params = {znc::string_param("containerId", containerId),
                         znc::integer_param("handle", objHandle)};
    return znc::request_done(ZNC_STORE_STATE, params);
}
