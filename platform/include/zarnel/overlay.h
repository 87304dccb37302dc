/*
 * overlay.h - overlay devices: directories "/overlay/<name>" that show a stack of directories as
 * one tree.
 *
 * A device exists while a file system is mounted on its directory; an empty directory left by a
 * reboot does not count. A writable device belongs to the container of the same name and is removed
 * with that container's namespace root (ns.h). A writable device that is no longer the root of any
 * namespace is abandoned and does not prevent a new one of its name. The directories of a read-only
 * device are recorded, so that znOvlRestore can mount it again after a reboot.
 *
 * On the host, device nodes and set-id programs in a device have no effect (nodev, nosuid).
 *
 * All calls need the right to mount. Any process may make them, but a writable device must be
 * created by the process that creates the namespaces.
 */
#ifndef ZARNEL_OVERLAY_H
#define ZARNEL_OVERLAY_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZN_OVERLAY_DIR "/overlay"

/*
 * Create the device `devName` (a path directly below ZN_OVERLAY_DIR) over `dirNum` directories, the
 * first on top. With `hasUpper` the first directory is writable, and the work directory that the
 * kernel needs is created in its parent; the other directories are read-only. The writable
 * directory is given the mode and owner of the second one before mounting. OK, or ERROR with EEXIST
 * (the device exists), EINVAL (invalid name, no directories, or an upper directory without a lower
 * one), ENOENT (a directory is missing), ENODEV (no overlay file system), EBUSY (another process
 * kept the devices locked for some seconds) or another kernel error; nothing is left behind then.
 */
STATUS znOvlDevCreate(const char* devName, const char* const* dirs, uint32_t dirNum, BOOL hasUpper);

/*
 * Detach a device and remove its directory and its record. Processes that use the device keep
 * access to it until they end. ERROR with ENOENT (no such directory) or EINVAL (nothing mounted
 * there, or an invalid name).
 */
STATUS znOvlDevRemove(const char* devName);

/*
 * The maximum number of directories in a read-only device; older kernels support fewer. A directory
 * that is named more than once counts once.
 */
uint32_t znOvlDirsMax(void);

/*
 * Call `visit` with every directory in the record of the read-only device `devName`, the first on
 * top, until it returns FALSE. OK, or ERROR with ENOENT (no such device, or no complete record),
 * EINVAL (invalid name), EBUSY, or the error that prevented reading the record.
 */
STATUS znOvlDevDirs(const char* devName, BOOL (*visit)(void* context, const char* dir),
                    void* context);

/*
 * Called for a mounted device: its path, its lower directories in the order of the stack (without
 * the writable one), and whether it is a writable device. The strings are valid during the call
 * only.
 */
typedef void (*ZN_OVL_DEV_VISIT)(const char* devName, const char* const* lower, uint32_t lowerNum,
                                 BOOL writable, void* context);

/*
 * Call `visit` for each mounted device. OK, or ERROR with errno set if the mount table cannot be
 * read, or with ENOMEM; `visit` may have been called for some devices then.
 */
STATUS znOvlDevEach(ZN_OVL_DEV_VISIT visit, void* context);

/* Whether a live namespace has this device as its root; TRUE also if that cannot be determined. */
BOOL znOvlDevInUse(const char* devName);

/*
 * Called when the daemon stops: detach every writable device that is not the root of a live
 * namespace, such as those left by failed creates. Returns the number of devices that could not be
 * detached.
 */
int znOvlSweep(void);

/*
 * Create ZN_OVERLAY_DIR, accessible to its owner only, if the kernel supports the overlay file
 * system. TRUE if the directory exists afterwards.
 */
BOOL znOvlInit(void);

/*
 * Called when the daemon starts: detach every writable device left by an earlier daemon (its
 * directories stay, for the caller to remove), mount every recorded read-only device whose
 * directories still exist, and remove the directories of all other devices. Returns the number of
 * devices for which this failed; they keep their record, so that the next call tries again.
 */
int znOvlRestore(void);

#ifdef __cplusplus
}
#endif
#endif
