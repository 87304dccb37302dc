// zncContainerLib_rootfs.cpp - a container's root filesystem, namespace and mounts. Whether the
// root is the bundle's own directory or an overlay device above it is determined again in each
// call.
#include "zncContainerLib.hpp"
#include "zncTrash.hpp"
#include "zncTreeDelete.hpp"

#include "zarnel/fs.h"
#include "zarnel/ns.h"
#include "zarnel/overlay.h"

#include <sys/stat.h>

namespace {

using znc::fail;
using znc::kPathMax;
using PathBuffer = znc::MallocPtr<char[]>;

constexpr int kNamespaceFlags = 0x1001;
constexpr char kUpperDir[] = "/upper";

const char* printable(const char* text)
{
    return text != nullptr ? text : "(null)";
}

// Like zncOvlFsAvailable(), but preserves errno: it is no error if overlays are not available.
bool overlay_available()
{
    const znc::ErrnoSaver keep;
    return zncOvlFsAvailable() != FALSE;
}

bool append(char* path, const char* component)
{
    return znPathAppend(path, kPathMax, component) != path + kPathMax;
}

// Writes the path of the bundle's root directory; false if it does not fit.
bool bundle_root_path(const CONTAINER_CTX* ctx, char* path)
{
    const char* const root = ctx->pConfig->root->path;
    path[0] = '\0';
    return (pathIsSep(root[0]) || append(path, ctx->state.bundlePath)) && append(path, root);
}

bool device_path(const CONTAINER_CTX* ctx, char* path)
{
    path[0] = '\0';
    return append(path, ZN_OVERLAY_DIR) && append(path, ctx->state.containerId);
}

STATUS upper_path(const char* containerId, char* path)
{
    if (zncBasePathGet(path, kPathMax, ZNC_CONTAINERS_PATH) == 0)
        return ERROR;
    char* const end = path + kPathMax;
    char* const out = znPathAppend(path, kPathMax, containerId);
    if (static_cast<std::size_t>(end - out) < sizeof kUpperDir)
        return fail(ENAMETOOLONG);
    znc::copy_end(out, end, kUpperDir);
    return OK;
}

// Deletes a container's directory: immediately if it is small, otherwise later from the trash,
// because the daemon must serve other clients. It also goes to the trash if deleting fails: a
// process that has a descriptor of the root may create files while the directory is emptied. If it
// cannot be moved to the trash, it is deleted here, however long that takes.
STATUS delete_container_dir(const char* dir)
{
    if (znc::is_small_tree(dir) && znc::delete_foreign_tree(dir) == OK) {
        znc::trash_retry();
        return OK;
    }
    if (znc::trash_take(dir) != OK)
        return znc::delete_foreign_tree(dir);
    znc::trash_empty();
    return OK;
}

// If deleting an earlier container with this id failed, its files still exist, and the new
// container must not see them. `upper` is modified temporarily.
STATUS remove_old_files(const char* device, char* upper)
{
    char* const slash = upper + std::strlen(upper) - (sizeof kUpperDir - 1);
    *slash = '\0';
    STATUS result = OK;
    struct stat st;
    if (::lstat(upper, &st) == 0 && S_ISDIR(st.st_mode))
        result = znOvlDevInUse(device) != FALSE ? fail(EEXIST) : delete_container_dir(upper);
    *slash = '/';
    return result;
}

STATUS create_device(CONTAINER_CTX* ctx, const char* device, char* upper)
{
    if (remove_old_files(device, upper) != OK || znMkdirParents(upper, 0777) != OK)
        return ERROR;
    PathBuffer bundle_root;
    const char* lower = ctx->pConfig->root->path;
    if (!pathIsSep(lower[0])) {
        bundle_root = znc::malloc_array<char>(kPathMax);
        if (!bundle_root)
            return ERROR;
        if (!bundle_root_path(ctx, bundle_root.get()))
            return fail(S_zncLib_BUNDLE_PATH_TOO_LONG);
        lower = bundle_root.get();
    }
    const char* layers[] = {upper, lower};
    if (zncCreateOvlRootfsDev(device, layers, 2, TRUE) == OK)
        return OK;
    const znc::ErrnoSaver keep;
    znc::delete_foreign_tree(upper);
    return ERROR;
}

nsid_t create_namespace(const CONTAINER_CTX* ctx, const char* document)
{
    char reason[ZNNS_REASON_MAX] = "";
    const nsid_t ns = znnsCreateConfigured(kNamespaceFlags, ctx->state.containerId, document,
                                           reason, sizeof reason);
    if (ns == -1 && reason[0] != '\0')
        znc::send_progress("The configuration was refused: %s", reason);
    return ns;
}

STATUS seal(const CONTAINER_CTX* ctx)
{
    char reason[ZNNS_REASON_MAX] = "";
    const STATUS result = znnsSeal(ctx->nsId, reason, sizeof reason);
    if (result != OK && reason[0] != '\0')
        znc::send_progress("The configuration cannot be applied: %s", reason);
    return result;
}

STATUS make_root(CONTAINER_CTX* ctx, char* root)
{
    // The platform reads the parts of the configuration that this library does not read: users,
    // rights, limits. It gets the document as parsed by this library.
    const znc::CJsonText document(cJSON_PrintUnformatted(ctx->pConfig->tree));
    if (document == nullptr)
        return fail(ENOMEM);
    if (zncContainerRootfsCreate(ctx, root) != OK) {
        znc::send_progress("Container rootfs create failed : %s", root);
        return fail(S_zncLib_ROOTFS_CREATE_FAILED);
    }
    if (zncContainerAppPathSet(ctx, root) != OK)
        return fail(S_zncLib_OCI_ARG_INVALID);
    const nsid_t ns = create_namespace(ctx, document.get());
    if (ns == -1)
        return fail(S_zncLib_NAMESPACE_CREATE_FAILED);
    ctx->nsId = ns;
    if (znnsRootfsCreate(ns, root, ctx->state.containerId) != OK)
        return fail(S_zncLib_ROOTFS_CREATE_FAILED);
    return OK;
}

STATUS mount_all(CONTAINER_CTX* ctx, const char* root, const runtimeSpecConfigMounts& mounts)
{
    UINT32 done = 0;
    STATUS result = OK;
    for (; done < static_cast<UINT32>(mounts.count); done++) {
        const runtimeSpecConfigMount& mount = *mounts.mount[done];
        result = znnsMount(ctx->nsId, root, mount.src, mount.dst, mount.type, mount.opt);
        if (result != OK) {
            znc::send_progress(
                "Container additional mount failed for rootfs path: %s src: %s dest: %s", root,
                printable(mount.src), printable(mount.dst));
            break;
        }
    }
    ctx->mountCount = done;
    return result;
}

// Unmounts in reverse order. mountCount still includes a mount that could not be undone.
STATUS umount_all(CONTAINER_CTX* ctx, const char* root)
{
    while (ctx->mountCount > 0) {
        const runtimeSpecConfigMount& mount = *ctx->pConfig->mounts->mount[ctx->mountCount - 1];
        const STATUS result =
            znnsUmount(ctx->nsId, root, mount.src, mount.dst, mount.type, mount.opt);
        if (result != OK)
            return result;
        ctx->mountCount--;
    }
    return OK;
}

STATUS undo_root(CONTAINER_CTX* ctx)
{
    const PathBuffer buffer = znc::malloc_array<char>(kPathMax);
    if (!buffer)
        return ERROR;
    char* const root = buffer.get();
    const bool overlay = overlay_available();
    if (!(overlay ? device_path(ctx, root) : bundle_root_path(ctx, root)))
        return fail(ENAMETOOLONG);
    if (ctx->nsId == -1)
        return ERROR;
    STATUS result = umount_all(ctx, root);
    if (result != OK)
        return result;
    result = znnsRootfsDestroy(ctx->nsId, root, ctx->state.containerId);
    if (result != OK)
        return result;
    result = znnsDelete(ctx->nsId);
    if (result == OK)
        ctx->nsId = -1;
    return overlay ? zncContainerRemoveUpLayer(root, kPathMax, ctx->state.containerId) : result;
}

} // namespace

STATUS zncContainerMount(CONTAINER_CTX* pCtx)
{
    if (pCtx->mounted)
        return OK;
    const PathBuffer root = znc::malloc_array<char>(kPathMax);
    // If creation fails before the namespace has its root, the upper directory and the device are
    // kept: the next create with the same id removes them.
    if (!root || make_root(pCtx, root.get()) != OK)
        return ERROR;
    pCtx->mounted = TRUE;
    const runtimeSpecConfigMounts* const mounts = pCtx->pConfig->mounts;
    if ((mounts == nullptr || mount_all(pCtx, root.get(), *mounts) == OK) && seal(pCtx) == OK)
        return OK;
    zncContainerUmount(pCtx);
    return fail(S_zncLib_ADDITIONAL_MOUNT_FAILED);
}

STATUS zncContainerRootfsCreate(CONTAINER_CTX* pCtx, char* pRootfsPath)
{
    if (overlay_available())
        return zncContainerOvlfsRootfsCreate(pCtx, pRootfsPath);
    return bundle_root_path(pCtx, pRootfsPath) ? OK : fail(S_zncLib_BUNDLE_PATH_TOO_LONG);
}

STATUS zncContainerOvlfsRootfsCreate(CONTAINER_CTX* pCtx, char* rootfsPath)
{
    const PathBuffer upper = znc::malloc_array<char>(kPathMax);
    if (!upper || upper_path(pCtx->state.containerId, upper.get()) != OK)
        return ERROR;
    if (!device_path(pCtx, rootfsPath))
        return fail(ENAMETOOLONG);
    return create_device(pCtx, rootfsPath, upper.get());
}

STATUS zncContainerAppPathSet(CONTAINER_CTX* pCtx, const char* pRootfsPath)
{
    const runtimeSpecConfigProcess& process = *pCtx->pConfig->process;
    char* const path = pCtx->appPath;
    path[0] = '\0';
    const bool fits = append(path, pRootfsPath) &&
                      (pathIsSep(process.args[0][0]) || append(path, process.cwd)) &&
                      append(path, process.args[0]);
    return fits ? OK : ERROR;
}

STATUS zncContainerUmount(CONTAINER_CTX* pCtx)
{
    if (!pCtx->mounted)
        return OK;
    const STATUS result = undo_root(pCtx);
    // Set also after a failure, so that deleting the container again removes it in any case.
    pCtx->mounted = FALSE;
    return result;
}

void znc::drop_namespace(CONTAINER_CTX* ctx)
{
    const ErrnoSaver keep;
    if (ctx->nsId == -1)
        return;
    const PathBuffer path = malloc_array<char>(kPathMax);
    znnsRootfsDestroy(ctx->nsId, "", ctx->state.containerId);
    znnsDelete(ctx->nsId);
    ctx->nsId = -1;
    if (path && overlay_available())
        zncContainerRemoveUpLayer(path.get(), kPathMax, ctx->state.containerId);
}

STATUS zncContainerRemoveUpLayer(char* buffer, size_t bufferLen, const char* containerId)
{
    if (zncBasePathGet(buffer, kPathMax, ZNC_CONTAINERS_PATH) == 0)
        return ERROR;
    if (znPathAppend(buffer, bufferLen, containerId) == buffer + bufferLen)
        return fail(ENAMETOOLONG);
    return delete_container_dir(buffer);
}
