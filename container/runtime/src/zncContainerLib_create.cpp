// zncContainerLib_create.cpp - creates a container from a bundle directory.
#include "zncBundleLayers.hpp"

#include "base/failure.hpp"
#include "zncContainerLib.hpp"
#include "zncRuntimeSpec_members.hpp"

#include "zarnel/fs.h"

namespace {

using znc::fail;
using znc::LockedContext;

// Undoes an incomplete create. Preserves errno, the reason of the failure.
struct ContextRollback {
    void operator()(CONTAINER_CTX* ctx) const noexcept
    {
        const znc::ErrnoSaver keep;
        zncContainerUmount(ctx);
        znc::drop_namespace(ctx);
        znc::free_context(ctx);
    }
};
using NewContext = std::unique_ptr<CONTAINER_CTX, ContextRollback>;

STATUS check_conflicts(const char* containerId, const char* bundlePath)
{
    if (const LockedContext same(zncContainerFindAndLockById(containerId)); same)
        return fail(S_zncLib_CONTAINER_EXISTS);
    // With the overlay filesystem each container writes into its own layer above the bundle.
    if (zncOvlFsAvailable())
        return OK;
    if (const LockedContext user(zncContainerFindAndLockByBundle(bundlePath)); user) {
        znc::send_progress("The bundle '%s' is already in use.", bundlePath);
        return fail(S_zncLib_BUNDLE_IN_USE);
    }
    return OK;
}

STATUS load_config(CONTAINER_CTX* ctx, const char* bundlePath)
{
    char* const path = ctx->state.bundlePath;
    char* const end = path + sizeof ctx->state.bundlePath;
    if (znPathAppend(path, sizeof ctx->state.bundlePath, bundlePath) == end ||
        znPathAppend(path, sizeof ctx->state.bundlePath, "config.json") == end)
        return fail(ENAMETOOLONG);
    ctx->pConfig = zncInitializeRuntimeSpec(path);
    if (ctx->pConfig == nullptr) {
        if (errno != ENOENT)
            return fail(S_zncLib_RUNTIME_CONFIG_LOAD_FAILED);
        znc::send_progress("OCI bundle config.json not exists in %s", bundlePath);
        return fail(S_zncLib_BUNDLE_CONFIG_NOT_EXIST);
    }
    path[0] = '\0';
    znPathAppend(path, sizeof ctx->state.bundlePath, bundlePath);
    return OK;
}

STATUS set_identity(CONTAINER_CTX* ctx, const char* containerId)
{
    CONTAINER_STATE& state = ctx->state;
    const char* const version = ctx->pConfig->version;
    if (!znc::is_spec_path(version))
        return fail(S_zncLib_OCI_VERSION_INVALID);
    if (!znc::is_spec_version(version))
        return fail(EINVAL);
    znc::copy_end(state.ver, state.ver + sizeof state.ver, version);
    // One character less than a valid id may have is kept.
    znc::copy_end(state.containerId, state.containerId + sizeof state.containerId, containerId);
    return OK;
}

// Checks that the root still belongs to the bundle: another image may have been unpacked under its
// path since (zncBundleLayers).
STATUS check_root(const CONTAINER_CTX* ctx)
{
    const char* const root = ctx->pConfig->root->path;
    if (znc::check_bundle_layers(ctx->state.bundlePath, root) == OK)
        return OK;
    if (errno == ESTALE)
        znc::send_progress("The root is made of other layers than the bundle was unpacked from; "
                           "unpack the image again: %s",
                           root);
    else
        znc::send_progress("The layers of the root cannot be compared with those that the bundle "
                           "was unpacked from: %s",
                           root);
    return znc::fail(S_zncLib_ROOTFS_CREATE_FAILED);
}

// Mounts the container and puts it on the list. Its mutex is held until its state is complete, so
// that no other task can see or delete an incomplete container.
STATUS mount_and_register(CONTAINER_CTX* ctx)
{
    ctx->sem = znMutexCreate(znc::kMutexOptions);
    if (ctx->sem == nullptr)
        return ERROR;
    ctx->state.status = STATE_CREATED;
    ctx->mounted = FALSE;
    if (zncContainerMount(ctx) != OK)
        return ERROR;
    ctx->state.createdTime = ::time(nullptr);
    if (znc::keep_container(ctx) != OK || znMutexTake(ctx->sem, ZN_NO_WAIT) != OK ||
        zncContainerAdd(ctx) != OK)
        return ERROR;
    ctx->state.pCtx = ctx;
    zncContainerUnlock(ctx);
    return OK;
}

} // namespace

STATUS znc::check_config(const runtimeSpecConfig& config)
{
    if (config.root == nullptr || !znc::is_spec_path(config.root->path))
        return fail(S_zncLib_OCI_ROOT_INVALID);
    const runtimeSpecConfigProcess* const process = config.process;
    if (process == nullptr || !znc::is_spec_absolute_path(process->cwd))
        return fail(S_zncLib_OCI_CWD_INVALID);
    if (!znc::is_spec_path(process->args[0]))
        return fail(S_zncLib_OCI_ARG_INVALID);
    return OK;
}

STATUS zncContainerCreate(const char* containerId, const char* bundlePath,
                          [[maybe_unused]] unsigned int option, [[maybe_unused]] ZNC_ATTR* pAttr)
{
    if (!isInitialized || !zncContainerIdValid(containerId) || !zncBundlePathValid(bundlePath))
        return fail(EINVAL);
    if (check_conflicts(containerId, bundlePath) != OK)
        return ERROR;
    NewContext ctx(znc::malloc_zeroed<CONTAINER_CTX>().release());
    if (!ctx)
        return ERROR;
    ctx->state.status = STATE_CREATING;
    ctx->nsId = -1;
    if (load_config(ctx.get(), bundlePath) != OK || set_identity(ctx.get(), containerId) != OK ||
        znc::check_config(*ctx->pConfig) != OK || check_root(ctx.get()) != OK ||
        mount_and_register(ctx.get()) != OK)
        return ERROR;
    static_cast<void>(ctx.release()); // now owned by the list
    return OK;
}
