// zncContainerLib.hpp - the registry of containers: one context per container on one list, and
// what the registry's own files and unit tests share of it.
//
// Callers: the daemon (zncRuntimeService) through the exported zncContainer functions, and the
// inspection document, which reaches a container's configuration through its state's `pCtx`. Locks:
// the list mutex first, then a context's mutex, which is only ever tried while the list is held, so
// no thread waits while it holds the list mutex. Left out: the configuration itself
// (zncRuntimeSpec), storage paths and overlay devices (zncOverlayLib).
#ifndef ZNCCONTAINERLIB_HPP
#define ZNCCONTAINERLIB_HPP

#include "base/failure.hpp"
#include "zncOwned.hpp"
#include "zncPath.hpp"
#include "zncontainer.h"
#include "zncprotocol.h"

#include "zarnel/msgq.h" // the timeouts
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
    SEM_ID sem;            // guards everything below once the context is on the list
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
extern SEM_ID zncContainerSem; // guards the list and its links

// The client being served: its info queue and how much of the progress it wants to read.
extern char infoMsgQ[ZNC_MSG_NAME_LEN];
extern uint32_t zncMsgVerbosity;

BOOL pathCompIsValid(const char* str);
BOOL zncContainerIdValid(const char* id);
BOOL zncBundlePathValid(const char* bundle);

STATUS zncContainerListLock();
STATUS zncContainerListUnlock(); // keeps errno

// The first match, its mutex taken; null if nothing matches or if another thread holds the match.
CONTAINER_CTX* zncContainerFindAndLock(const char* matchName, BOOL isBundle);
CONTAINER_CTX* zncContainerFindAndLockById(const char* containerId);
CONTAINER_CTX* zncContainerFindAndLockByBundle(const char* bundlePath);
void zncContainerUnlock(CONTAINER_CTX* pCtx); // keeps errno

STATUS zncContainerAdd(CONTAINER_CTX* pCtx);

// These take a context whose mutex the caller holds. After an OK of zncContainerRemove it is gone.
STATUS zncContainerRemove(CONTAINER_CTX* pCtx);
BOOL zncContainerCheckRunning(CONTAINER_CTX* pCtx);

// The root filesystem, its namespace and mounts; the context's mutex is held, or nobody knows the
// context yet. Path buffers have 1024 bytes.
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

// Frees a context that is on no list, with its configuration and its mutex. Keeps errno.
void free_context(CONTAINER_CTX* ctx);

// Ends the namespace that a failed unmount left the container with, if it did.
void drop_namespace(CONTAINER_CTX* ctx);

// zncSendMsg at level 1, for constant formats. Keeps errno.
void send_progress(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace znc

#endif
