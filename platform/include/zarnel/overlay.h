/*
 * overlay.h - overlay devices: a directory "/overlay/<name>" that shows a stack of
 * directories as one tree.
 *
 * A device exists while something is mounted there; a bare directory of its name, left over
 * by a reboot, does not count. A writable device belongs to the container of its name and
 * goes when that container's namespace root is undone (ns.h); one that no namespace is
 * rooted on any more is abandoned and does not block a new one. A read-only device is
 * recorded beside itself, so that znOvlDevRestore can attach it after a reboot.
 *
 * On the host a device has no device nodes and no set-id programs.
 *
 * All calls need the right to mount. They may run in any process, but a writable device must
 * be made by the process that makes the namespaces.
 */
#ifndef ZARNEL_OVERLAY_H
#define ZARNEL_OVERLAY_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZN_OVERLAY_DIR "/overlay"

/*
 * Create the device `devName` (a path directly under ZN_OVERLAY_DIR) over `dirNum`
 * directories, the first on top. With `hasUpper` the first directory is writable and its
 * parent directory takes the work directory the kernel needs; the rest are only read. The
 * writable directory is given the mode and owner of the next one before anything is mounted.
 * OK, or ERROR with EEXIST (the device exists), EINVAL (a bad name, no directories, an
 * upper without a lower), ENOENT (a directory is missing), ENODEV (no overlay filesystem),
 * EBUSY (another process keeps devices locked for seconds) or the kernel's number; nothing is then
 * left behind.
 */
STATUS znOvlDevCreate(const char* devName, const char* const* dirs, uint32_t dirNum, BOOL hasUpper);

/*
 * Detach a device and remove its node and its record. Processes that use it keep their view
 * until they end. ERROR with ENOENT (no such node) or EINVAL (nothing mounted there, or a
 * bad name).
 */
STATUS znOvlDevRemove(const char* devName);

/*
 * How many directories the kernel stacks at most in a read-only device; older kernels stack fewer. A
 * directory that is named more than once counts once.
 */
uint32_t znOvlDirsMax(void);

/*
 * Call `visit` with every directory that the read-only device `devName` was made of, the first on
 * top, until it returns FALSE. Told by the device's record. OK, or ERROR with ENOENT (there is no
 * such device, or it has no whole record), EINVAL (a bad name), EBUSY or the number of what kept the
 * record from being read.
 */
STATUS znOvlDevDirs(const char* devName, BOOL (*visit)(void* context, const char* dir),
                    void* context);

/*
 * One attached device: its path, the directories below it in the order of the stack (without the
 * writable one), and whether a container can write to it. The texts are valid during the call only.
 */
typedef void (*ZN_OVL_DEV_VISIT)(const char* devName, const char* const* lower, uint32_t lowerNum,
                                 BOOL writable, void* context);

/*
 * Call `visit` for each device that is attached now. OK, or ERROR with the task error number set
 * when the table of mounts cannot be read, or with ENOMEM; some may have been visited then.
 */
STATUS znOvlDevEach(ZN_OVL_DEV_VISIT visit, void* context);

/* Whether a living namespace has this device for its root; TRUE also if that cannot be told. */
BOOL znOvlDevInUse(const char* devName);

/*
 * For a daemon that stops: detach every writable device that no living namespace has for its
 * root, such as those of creates that failed. Returns how many could not be detached.
 */
int znOvlSweep(void);

/*
 * Make ZN_OVERLAY_DIR if the kernel has the overlay filesystem, and close it to all other users.
 * TRUE if it is there afterwards.
 */
BOOL znOvlInit(void);

/*
 * For a daemon that starts: detach every writable device that a dead daemon left behind (its
 * directories stay the caller's), attach again every recorded read-only device whose directories
 * are still there, and remove the nodes of all others. Returns how many could not be dealt with;
 * those keep their record for the next time.
 */
int znOvlRestore(void);

#ifdef __cplusplus
}
#endif
#endif
