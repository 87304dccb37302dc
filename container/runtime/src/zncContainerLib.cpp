#include "zncContainerLib.hpp"
#include "base/not_copied.hpp"
#include "zncContainerTable.hpp"

#include "zarnel/fs.h"
#include "zarnel/ns.h"
#include "zarnel/task.h"

namespace {

using znc::fail;
using znc::LockedContext;

constexpr std::size_t kIdBuffer = 256;
constexpr int kListWaitSeconds = 5;
constexpr int kSignalKill = 9;
constexpr int16_t kSpawnFlags = 0x180;

class ListLock : znc::NotCopied {
  public:
    ListLock() noexcept : held_(zncContainerListLock() == OK) {}
    ~ListLock()
    {
        if (held_)
            zncContainerListUnlock();
    }
    explicit operator bool() const noexcept { return held_; }

  private:
    bool held_;
};

// Protected by the list mutex; functions that use the table are called with the mutex held.
znc::ContainerTable containers(zncContainersList);

CONTAINER_CTX* lock_if_free(CONTAINER_CTX* ctx)
{
    return ctx != nullptr && znMutexTake(ctx->sem, ZN_NO_WAIT) == OK ? ctx : nullptr;
}

// The container, locked, or null with EINVAL or ENODEV.
LockedContext lock_existing(const char* containerId)
{
    LockedContext ctx;
    if (!zncContainerIdValid(containerId)) {
        errno = EINVAL;
        return ctx;
    }
    ctx.reset(zncContainerFindAndLockById(containerId));
    if (!ctx)
        errno = ENODEV;
    return ctx;
}

} // namespace

namespace znc {

void free_context(CONTAINER_CTX* ctx)
{
    const ErrnoSaver keep;
    const MallocPtr<CONTAINER_CTX> record(ctx);
    zncDestroyRuntimeSpec(ctx->pConfig);
    if (ctx->sem != nullptr)
        znMutexDelete(ctx->sem);
}

} // namespace znc

BOOL isInitialized = FALSE;
SL_LIST zncContainersList;
SEM_ID zncContainerSem;

BOOL pathCompIsValid(const char* str)
{
    if (str == nullptr || str[0] == '\0')
        return FALSE;
    for (std::size_t i = 0; i < kIdBuffer; i++) {
        if (str[i] == '\0')
            return TRUE;
        if (pathIsSep(str[i]))
            return FALSE;
    }
    return FALSE;
}

BOOL zncContainerIdValid(const char* id)
{
    return pathCompIsValid(id) && std::strcmp(id, ".") != 0 && std::strcmp(id, "..") != 0;
}

BOOL zncBundlePathValid(const char* bundle)
{
    return bundle != nullptr && pathIsSep(bundle[0]);
}

STATUS zncContainerListLock()
{
    return znMutexTake(zncContainerSem, kListWaitSeconds * znSysClkRateGet());
}

STATUS zncContainerListUnlock()
{
    const znc::ErrnoSaver keep;
    return znMutexGive(zncContainerSem);
}

CONTAINER_CTX* zncContainerFindAndLock(const char* matchName, BOOL isBundle)
{
    const ListLock list;
    if (!list)
        return nullptr;
    return lock_if_free(isBundle ? containers.find_by_bundle(matchName)
                                 : containers.find(matchName));
}

CONTAINER_CTX* zncContainerFindAndLockById(const char* containerId)
{
    return zncContainerFindAndLock(containerId, FALSE);
}

CONTAINER_CTX* zncContainerFindAndLockByBundle(const char* bundlePath)
{
    char path[znc::kPathMax] = "";
    if (znPathAppend(path, sizeof path, bundlePath) == path + sizeof path)
        return nullptr;
    return zncContainerFindAndLock(path, TRUE);
}

void zncContainerUnlock(CONTAINER_CTX* pCtx)
{
    const znc::ErrnoSaver keep;
    znMutexGive(pCtx->sem);
}

STATUS zncContainerAdd(CONTAINER_CTX* pCtx)
{
    const ListLock list;
    return list ? containers.add(pCtx) : ERROR;
}

STATUS zncContainerRemove(CONTAINER_CTX* pCtx)
{
    {
        const ListLock list;
        if (!list)
            return ERROR;
        containers.remove(pCtx);
    }
    // Set if unmounting failed: no later call would remove the namespace.
    znc::drop_namespace(pCtx);
    znc::free_context(pCtx);
    return OK;
}

BOOL zncContainerCheckRunning(CONTAINER_CTX* pCtx)
{
    if (pCtx->state.status != STATE_RUNNING)
        return FALSE;
    BOOL in_use = FALSE;
    if (znnsInUse(pCtx->nsId, &in_use) == OK && in_use)
        return TRUE;
    pCtx->state.status = STATE_STOPPED;
    return FALSE;
}

STATUS zncContainerInit()
{
    if (isInitialized)
        return OK;
    containers.clear();
    zncContainerSem = znMutexCreate(znc::kMutexOptions);
    if (zncContainerSem == nullptr)
        return ERROR;
    isInitialized = TRUE;
    return OK;
}

STATUS zncContainerStart(const char* containerId, CONTAINER_START_PARM* param)
{
    if (param == nullptr)
        return fail(EINVAL);
    const LockedContext ctx = lock_existing(containerId);
    if (!ctx)
        return ERROR;
    if (ctx->state.status != STATE_CREATED)
        return fail(EBUSY);
    const runtimeSpecConfigZarnel& zarnel = *ctx->pConfig->zarnel;
    const runtimeSpecConfigProcess& process = *ctx->pConfig->process;
    param->appPath = ctx->appPath;
    param->option = zarnel.option;
    param->priority = zarnel.priority;
    param->stackSize = zarnel.stackSize;
    param->taskOption = zarnel.taskOption;
    param->nsId = ctx->nsId;
    param->cwd = process.cwd;
    param->posixFlags = kSpawnFlags;
    param->arg = process.args;
    param->argNum = process.argCount;
    param->env = process.env;
    param->envNum = process.envCount;
    // Set before the client has spawned the program, so that a second start fails.
    ctx->state.status = STATE_RUNNING;
    if (znc::keep_container(ctx.get()) == OK)
        return OK;
    ctx->state.status = STATE_CREATED;
    return ERROR;
}

STATUS zncContainerKill(const char* containerId, int signo, unsigned int option)
{
    const LockedContext ctx = lock_existing(containerId);
    if (!ctx)
        return ERROR;
    if (!zncContainerCheckRunning(ctx.get()))
        return OK;
    if ((option & ZNC_OPT_WHOLE_NAMESPACE) != 0)
        return znnsKill(ctx->nsId, signo);
    return znnsProcessKill(ctx->nsId, ctx->pidHandle, signo);
}

STATUS zncContainerDelete(const char* containerId, unsigned int option)
{
    LockedContext ctx = lock_existing(containerId);
    if (!ctx)
        return ERROR;
    if (ctx->state.status == STATE_CREATING)
        return fail(EBUSY);
    if (zncContainerCheckRunning(ctx.get())) {
        if ((option & ZNC_OPT_WHOLE_NAMESPACE) == 0)
            return fail(EBUSY);
        // Do not wait for the end of the processes: deleting the namespace does that.
        if (znnsKill(ctx->nsId, kSignalKill) != OK)
            return ERROR;
    }
    if (zncContainerUmount(ctx.get()) != OK) {
        znc::send_progress("Unmount failed containerId: %s", containerId);
        static_cast<void>(znc::keep_container(ctx.get())); // with the mounts that are left
        return fail(S_zncLib_UNMOUNT_FAILED);
    }
    if (zncContainerRemove(ctx.get()) != OK)
        return ERROR;
    static_cast<void>(ctx.release());
    return OK;
}

STATUS zncContainerStorePidHandle(const char* containerId, OBJ_HANDLE pidHandle)
{
    LockedContext ctx = lock_existing(containerId);
    if (!ctx)
        return ERROR;
    // Intentionally keep the mutex locked: from now on only the daemon task can use the container.
    // Its own calls succeed because the mutex is recursive.
    CONTAINER_CTX* const stored = ctx.release();
    stored->pidHandle = pidHandle;
    // The program runs in any case. If this fails, the next daemon can signal it only together with
    // all other processes of the container.
    static_cast<void>(znc::keep_container(stored));
    return OK;
}

STATUS zncContainerStateGet(char* containerId, CONTAINER_STATE* pState)
{
    if (containerId == nullptr || pState == nullptr)
        return fail(EINVAL);
    const ListLock list;
    if (!list)
        return ERROR;
    const LockedContext ctx(lock_if_free(containers.find(containerId)));
    if (!ctx)
        return fail(ENODEV);
    zncContainerCheckRunning(ctx.get());
    *pState = ctx->state;
    return OK;
}

BOOL zncContainerNext(char* containerId)
{
    if (containerId == nullptr || ::strnlen(containerId, kIdBuffer) == kIdBuffer)
        return znc::fail(EINVAL, FALSE);
    const ListLock list;
    if (!list)
        return FALSE;
    const CONTAINER_CTX* const next = containers.next(containerId);
    if (next == nullptr)
        return FALSE;
    znc::copy_end(containerId, containerId + kIdBuffer, next->state.containerId);
    return TRUE;
}
