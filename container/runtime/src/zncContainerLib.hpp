// zncContainerLib.hpp - the registry of containers: a list with one context per container. These
// declarations are shared by the files of the registry and the unit tests.
//
// Used by the daemon (zncRuntimeService) through the exported zncContainer functions, and for the
// inspection document, which accesses a container's configuration through `pCtx` of its state. Lock
// order: the list mutex first, then a context's mutex. The latter is only tried, never waited for,
// while the list mutex is held. Handled elsewhere: the configuration (zncRuntimeSpec), storage
// paths and overlay devices (zncOverlayLib).
#ifndef ZNCCONTAINERLIB_HPP
#define ZNCCONTAINERLIB_HPP

#include "base/failure.hpp"
#include "zncOwned.hpp"
#include "zncPath.hpp"
#include "zncontainer.h"
#include "zncprotocol.h"

#include "zarnel/msgq.h" // ZN_NO_WAIT
#include "zarnel/mutex.h"

struct SL_NODE {
    SL_NODE* next;
};

struct SL_LIST {
    SL_NODE* head;
    SL_NODE* tail;
};

struct containerCtx {
    SL_NODE containerNode; // first member: the list node has the address of the context
    char appPath[1024];    // the program to start, as a host path under the root filesystem
    SEM_ID sem;            // protects the members below once the context is on the list
    OBJ_HANDLE pidHandle;  // 0 until the client has stored it
    BOOL mounted;          // the root filesystem and the first `mountCount` mounts exist
    UINT32 mountCount;
    nsid_t nsId; // -1: none
    CONTAINER_STATE state;
    runtimeSpecConfig* pConfig;
};
typedef struct containerCtx CONTAINER_CTX;

extern BOOL isInitialized;
extern SL_LIST zncContainersList;
extern SEM_ID zncContainerSem; // protects the list and its links

// The client being served: its info queue and its verbosity.
extern char infoMsgQ[ZNC_MSG_NAME_LEN];
extern uint32_t zncMsgVerbosity;

BOOL pathCompIsValid(const char* str);
BOOL zncContainerIdValid(const char* id);
BOOL zncBundlePathValid(const char* bundle);

STATUS zncContainerListLock();
STATUS zncContainerListUnlock(); // keeps errno

// The first matching context, locked; null if nothing matches or if another thread has locked the
// match.
CONTAINER_CTX* zncContainerFindAndLock(const char* matchName, BOOL isBundle);
CONTAINER_CTX* zncContainerFindAndLockById(const char* containerId);
CONTAINER_CTX* zncContainerFindAndLockByBundle(const char* bundlePath);
void zncContainerUnlock(CONTAINER_CTX* pCtx); // keeps errno

STATUS zncContainerAdd(CONTAINER_CTX* pCtx);

// The caller has locked the context. If zncContainerRemove returns OK, the context has been freed.
STATUS zncContainerRemove(CONTAINER_CTX* pCtx);
BOOL zncContainerCheckRunning(CONTAINER_CTX* pCtx);

// Functions for the root filesystem, the namespace and the mounts. The caller has locked the
// context, or it is not on the list yet. Path buffers have 1024 bytes.
STATUS zncContainerMount(CONTAINER_CTX* pCtx);
STATUS zncContainerUmount(CONTAINER_CTX* pCtx);
STATUS zncContainerRootfsCreate(CONTAINER_CTX* pCtx, char* pRootfsPath);
STATUS zncContainerOvlfsRootfsCreate(CONTAINER_CTX* pCtx, char* rootfsPath);
STATUS zncContainerAppPathSet(CONTAINER_CTX* pCtx, const char* pRootfsPath);
STATUS zncContainerRemoveUpLayer(char* buffer, size_t bufferLen, const char* containerId);

namespace znc {

inline constexpr int kMutexOptions = ZN_SEM_Q_PRIORITY | ZN_SEM_DELETE_SAFE | ZN_SEM_INVERSION_SAFE;

struct ContextUnlock {
    void operator()(CONTAINER_CTX* ctx) const noexcept { zncContainerUnlock(ctx); }
};
using LockedContext = std::unique_ptr<CONTAINER_CTX, ContextUnlock>;

// Frees a context that is not on the list, with its configuration and its mutex. Preserves errno.
void free_context(CONTAINER_CTX* ctx);

// Whether a configuration has what a container needs: root, working directory, program.
STATUS check_config(const runtimeSpecConfig& config);

// Records the container for the next daemon if containers are kept (zncContainerKeep.hpp).
STATUS keep_container(const CONTAINER_CTX* ctx);

// Deletes the namespace if a failed unmount has left it.
void drop_namespace(CONTAINER_CTX* ctx);

// Calls zncSendMsg with level 1. Preserves errno.
void send_progress(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace znc

#endif
